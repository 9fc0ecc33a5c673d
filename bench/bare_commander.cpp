// The asking half of a partner pair: sends a command, reads the stream it asked for, each packet with its stamp, up to
// the last packet, and sends the next. A second of silence ends a batch too. Prints the batches, the bad ones (first or
// last packet missing), the packets missing from the others, and the seconds from the first command to the end of the
// last batch.
#include "bare.h"
#include "wire/remote_command.h"

static constexpr const char* usage = "HOST PORT LOCAL_PORT PACKETS_PER_BATCH IP_LENGTH BATCHES";
static constexpr std::uint32_t silence_ms = 1000;

struct batch_result {
  std::uint32_t received;
  bool first_arrived;
  bool last_arrived;
};

static reader stream;

static batch_result receive_batch(std::uint32_t batch, std::uint32_t packets) {
  batch_result result = {};
  while (!result.last_arrived) {
    const int got = read_messages(&stream, 0);
    if (got < 0) break;
    for (int i = 0; i < got; ++i) {
      test_header header = {};
      if (!read_test_header(message_of(stream, i), &header) || header.batch != batch) continue;
      ++result.received;
      if (header.sequence == 0) result.first_arrived = true;
      if (header.sequence == packets - 1) result.last_arrived = true;
    }
  }
  return result;
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
    const batch_result result = receive_batch(batch, packets);
    if (result.first_arrived && result.last_arrived) {
      lost += packets - result.received;
    } else {
      ++bad;
    }
  }
  std::printf("batches %u bad %u lost %llu seconds %.6f\n", batches, bad, static_cast<unsigned long long>(lost),
              static_cast<double>(clock_usec() - start) / 1e6);
}
