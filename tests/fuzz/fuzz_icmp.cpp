// The reader of everything that a raw ICMP socket delivers, in echo and monitor mode.
#include "engine/echo_progress.h"
#include "net/icmp_handler.h"
#include "support/workbench.h"

// The first byte says how the run stands; each datagram follows behind the two bytes of its length.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const std::string modes[] = {"", "-s -m", "-a4 -e9", "-t -e9 -a9 10.0.0.1 10.0.0.9"};
  workbench b(modes[data[0] & 3U]);
  b.settings.partner_mode = data[0] >> 2U & 1U;
  if (b.settings.partner_mode != 0 && (data[0] & 8U) != 0) b.settings.process_id = 0;
  b.settings.remote_run = data[0] >> 4U & 1U;
  const std::uint32_t first = (data[0] & 32U) != 0 ? 65530 : 0;
  b.run.oldest_outstanding = first;
  for (std::uint32_t i = 0; i < 9; ++i) b.request(first + i);
  for (++data, --size; size >= 2;) {
    const std::size_t length = std::min<std::size_t>(std::size_t{data[0]} << 8U | data[1], size - 2);
    const byte_vector frame(data + 2, data + 2 + length);  // exact size
    data += 2 + length;
    size -= 2 + length;
    world.now += 70000;
    if (handle_icmp_response(frame.data(), static_cast<int>(length), &b.handled_now(), &b.settings, &b.stats, &b.run) >
        1)
      std::abort();
    if (b.settings.partner_mode == 0) (void)echo_progress(&b.settings, &b.run, &b.stats);
  }
  if (b.stats.rx_packets + b.stats.lost_packets > 9 && b.settings.partner_mode == 0) std::abort();  // each settles once
  return 0;
}
