// The reader of everything that a raw ICMP socket delivers, in echo and monitor mode.
#include <fuzzer/FuzzedDataProvider.h>

#include "engine/echo_progress.h"
#include "support/workbench.h"

// How the run stands, then the datagrams.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  workbench b(input.PickValueInArray({"", "-s -m", "-a4 -e9", "-t -e9 -a9 10.0.0.1 10.0.0.9"}));
  if (input.ConsumeBool()) b.settings.partner_mode = 1;
  if (input.ConsumeBool()) b.settings.remote_run = 1;
  if (b.settings.partner_mode != 0 && input.ConsumeBool()) b.settings.process_id = 0;
  b.run.oldest_outstanding = input.PickValueInArray({0U, 65530U});
  for (std::uint32_t i = 0; i < 9; ++i) b.request(b.run.oldest_outstanding + i);
  while (input.remaining_bytes() != 0) {
    world.now += 70000;
    if (b.receive_icmp(input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint16_t>())) > 1) std::abort();
    if (b.settings.partner_mode == 0) (void)echo_progress(&b.settings, &b.run, &b.stats);
  }
  if (b.stats.rx_packets + b.stats.lost_packets > 9 && b.settings.partner_mode == 0) std::abort();  // each settles once
  return 0;
}
