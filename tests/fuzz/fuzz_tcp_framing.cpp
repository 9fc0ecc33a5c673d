// The reader of a TCP stream: a monitor, an echo test or a commander, pieces and pauses included.
#include <fuzzer/FuzzedDataProvider.h>

#include "net/receive_frame.h"
#include "support/workbench.h"

// Who reads, then the pieces, each behind a pause of up to 13 s. What does not fit while nobody reads is lost.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  workbench b(input.PickValueInArray({"-p", "-p -s", "-c -p -E5", "-p -D"}));
  if (input.ConsumeBool()) b.settings.partner_mode = 1;
  b.connect(SOCK_STREAM);
  std::int64_t at = 0;
  while (input.remaining_bytes() != 0) {
    const std::int64_t pause = input.ConsumeIntegral<std::uint8_t>();
    at += pause * pause * 200;
    world.deliver(at, input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint16_t>()));
  }
  world.after(at, [] { shutdown(world.peer, SHUT_WR); });
  int result = 0;
  for (std::size_t calls = 0; result >= 0; ++calls) {
    result = receive_one_frame(&b.settings, &b.run, &b.stats, 20000000);
    if (result > 2 || calls > size) std::abort();  // a message takes 20 bytes at least, the end of the stream none
    world.drain();
  }
  return 0;
}
