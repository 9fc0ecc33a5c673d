// The reader of a TCP stream: a monitor, an echo test or a commander, pieces and pauses included.
#include "net/receiver.h"
#include "support/workbench.h"

// The first byte says who reads and in which pieces the rest comes. What does not fit while nobody reads is lost.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static char sink[65536];  // the peer reads whatever it is sent
  static const std::string readers[] = {"-p", "-p -s", "-c -p -E5", "-p -D"};
  workbench b(readers[data[0] & 3U]);
  b.settings.partner_mode |= data[0] >> 2U & 1U;
  b.connect(SOCK_STREAM);
  const std::size_t piece = std::size_t{1} << (data[0] >> 4U);
  const byte_vector stream(data + 1, data + size);
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    const byte_vector bytes(stream.data() + at, stream.data() + std::min(at + piece, stream.size()));
    world.after(static_cast<std::int64_t>(at), [&b, bytes] { send(b.peer, bytes.data(), bytes.size(), MSG_DONTWAIT); });
  }
  world.after(static_cast<std::int64_t>(size), [&b] { shutdown(b.peer, SHUT_WR); });
  int result = 0;
  for (std::size_t calls = 0; result >= 0; ++calls) {
    result = receive_one_frame(&b.settings, &b.run, &b.stats, 1000000);
    if (result > 2 || calls > size) std::abort();  // a message takes 20 bytes at least, the end of the stream none
    while (recv(b.peer, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
  }
  return 0;
}
