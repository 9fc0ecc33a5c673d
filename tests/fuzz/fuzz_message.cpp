// The reader of test messages in its three roles, commands and their execution included.
#include "net/message_handler.h"
#include "report/batch_report.h"
#include "support/workbench.h"

static void handle(workbench* b, byte_vector message) {
  const frame_result result =
      handle_test_message(inet_addr("10.0.0.7"), htons(9), message.data(), static_cast<int>(message.size()),
                          &b->handled_now(), &b->settings, &b->stats, &b->run);
  if (result < frame_none || result > frame_ends_batch) std::abort();
  if (result == frame_ends_batch && b->settings.command_mode != 0)
    (void)batch_report(&b->settings, &b->run, &b->stats, result);
}

// The first byte says who reads; each message follows behind the two bytes of its length.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static char sink[65536];  // the peer reads whatever it is sent
  static const std::string roles[] = {"-u",    "-p",    "-c -E5 -b -v",  "-c -p -E5 -b",
                                      "-u -s", "-p -s", "-c -E65536 -Q", "-c -E0 -B"};
  const std::uint8_t role = data[0];
  workbench b(roles[role & 7U]);
  b.settings.partner_mode |= role >> 3U & 1U;
  b.settings.remote_run = role >> 4U & 1U;
  if (b.settings.tcp != 0) b.connect(SOCK_STREAM);
  for (std::uint32_t i = 0; i < 9; ++i) b.request(i);
  for (++data, --size; size >= 2;) {
    const std::size_t length = std::min<std::size_t>(std::size_t{data[0]} << 8U | data[1], size - 2);
    byte_vector message(data + 2, data + 2 + length);
    // Long streams are fuzz_run's, or there would be no time for anything else.
    if (length >= 164) message[28] = message[29] = message[30] = 0;
    handle(&b, message);
    data += 2 + length;
    size -= 2 + length;
    world.now += 70000;
    while (recv(b.peer, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
  }
  if (b.settings.command_mode != 0) (void)batch_report(&b.settings, &b.run, &b.stats, frame_none);
  return 0;
}
