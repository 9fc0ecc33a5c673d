// The reader of test messages in its three roles, commands and their execution included.
#include <fuzzer/FuzzedDataProvider.h>

#include "engine/batch_progress.h"
#include "support/workbench.h"

// Who reads, then the messages.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  workbench b(input.PickValueInArray(
      {"-u", "-p", "-c -E5 -b -v", "-c -p -E5 -b", "-u -s", "-p -s", "-c -E65536 -Q", "-c -E0 -B"}));
  if (input.ConsumeBool()) b.settings.partner_mode = 1;
  if (input.ConsumeBool()) b.settings.remote_run = 1;
  if (b.settings.tcp != 0) b.connect(SOCK_STREAM);
  for (std::uint32_t i = 0; i < 9; ++i) b.request(i);
  while (input.remaining_bytes() != 0) {
    auto message = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint16_t>());  // exact size
    // Long streams are fuzz_run's, or there would be no time for anything else.
    if (message.size() >= 164) message[28] = message[29] = message[30] = 0;
    const frame_result result = b.receive_message(std::move(message));
    if (result < frame_none || result > frame_ends_batch) std::abort();
    if (result == frame_ends_batch && b.settings.command_mode != 0)
      (void)batch_report(&b.settings, &b.run, &b.stats, result);
    world.now += 70000;
    world.drain();
  }
  if (b.settings.command_mode != 0) (void)batch_report(&b.settings, &b.run, &b.stats, frame_none);
  return 0;
}
