// The asking half of a partner pair: sends a command, reads the stream it asked for, each packet with its stamp, up to
// the last packet, and sends the next. A second of silence ends a batch too. Prints the batches, the bad ones (first or
// last packet missing), the packets missing from the others, and the seconds from the first command to the end of the
// last batch.
#include "bare.h"
#include "wire/remote_command.h"

static constexpr const char* usage = "HOST PORT LOCAL_PORT PACKETS_PER_BATCH IP_LENGTH BATCHES";
static constexpr std::uint32_t silence_ms = 1000;

static reader stream;

// How many packets of the batch came; 0 when the first or the last is missing.
static std::uint32_t receive_batch(std::uint32_t batch, std::uint32_t packets) {
  std::uint32_t received = 0;
  bool first_came = false;
  bool last_came = false;
  while (!last_came) {
    const int got = read_messages(&stream, 0);
    if (got < 0) return 0;
    for (int i = 0; i < got; ++i) {
      test_header header = {};
      if (!read_test_header(message_of(stream, i), &header) || header.batch != batch) continue;
      ++received;
      first_came = first_came || header.sequence == 0;
      last_came = last_came || header.sequence == packets - 1;
    }
  }
  return first_came ? received : 0;
}

int main(int argc, char** argv) {
  const std::uint32_t batches = number_argument(argc, argv, 6, usage);
  const std::uint32_t packets = number_argument(argc, argv, 4, usage);
  const std::uint32_t monitor_port = number_argument(argc, argv, 2, usage);
  const std::uint32_t local_port = number_argument(argc, argv, 3, usage);
  const sockaddr_in monitor = address_of(argv[1], monitor_port);
  test_settings settings = {};
  settings.remote_echoes = packets;
  settings.delay_usec = 1;
  settings.ip_length = number_argument(argc, argv, 5, usage);
  settings.udp = 1;
  settings.local_port = htons(static_cast<std::uint16_t>(local_port));
  settings.remote_port = htons(static_cast<std::uint16_t>(monitor_port));
  operation_message command = {};
  build_remote_command(&settings, &command.body);
  auto* bytes = reinterpret_cast<std::uint8_t*>(&command);
  stream.socket_fd = open_socket(SOCK_DGRAM, IPPROTO_UDP);
  switch_on(stream.socket_fd, SOL_SOCKET, SO_TIMESTAMP);
  bind_to(stream.socket_fd, local_port);
  give_up_after(stream.socket_fd, silence_ms);

  std::uint32_t bad = 0;
  std::uint64_t lost = 0;
  const std::int64_t start = clock_usec();
  for (std::uint32_t batch = 0; batch < batches; ++batch) {
    write_message(bytes, message_operation, batch, 0, sizeof command);
    send_packet(stream.socket_fd, bytes, sizeof command, monitor);
    const std::uint32_t received = receive_batch(batch, packets);
    if (received == 0) ++bad;
    lost += received == 0 ? 0 : packets - received;
  }
  std::printf("batches %u seconds %.6f lost %llu bad %u\n", batches, static_cast<double>(clock_usec() - start) / 1e6,
              static_cast<unsigned long long>(lost), bad);
}
