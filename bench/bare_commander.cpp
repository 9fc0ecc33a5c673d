// The asking half of a partner pair: sends a command, reads the stream it asked for up to the last packet, and sends
// the next. A second of silence ends a batch too. Prints the batches, the bad ones (first or last packet missing), the
// packets missing from the others, and the seconds from the first command to the end of the last batch.
#include "bare_common.h"

static constexpr const char* usage = "HOST PORT LOCAL_PORT PACKETS_PER_BATCH IP_LENGTH BATCHES";

struct batch_result {
  std::uint32_t received;
  bool first_arrived;
  bool last_arrived;
};

// A bare monitor looks at two fields; the others make any monitor stream as fast as it can to `local_port`.
static void write_command(std::uint8_t* command, std::uint32_t packets, std::uint32_t ip_length,
                          std::uint16_t local_port) {
  constexpr std::size_t delay_offset = 36;
  constexpr std::size_t flag_offsets[] = {64, 76, 96, 100};  // ignore answers, one way, remote run, UDP
  constexpr std::size_t destination_port_offset = 110;
  const std::uint16_t port = htons(local_port);
  write_be32(command + command_echo_count_offset, packets);
  write_be32(command + command_ip_length_offset, ip_length);
  write_be32(command + delay_offset, 1);
  for (const std::size_t offset : flag_offsets) write_be32(command + offset, 1);
  std::memcpy(command + destination_port_offset, &port, sizeof port);
}

static batch_result receive_batch(int socket_fd, std::uint32_t batch, std::uint32_t packets) {
  static std::uint8_t message[largest_packet_bytes];
  batch_result result = {};
  while (!result.last_arrived) {
    const ssize_t length = recvfrom(socket_fd, message, sizeof message, 0, nullptr, nullptr);
    if (length < 0) break;
    if (length < static_cast<ssize_t>(message_header_bytes) || read_be32(message + batch_offset) != batch) continue;
    const std::uint32_t sequence = read_be32(message + sequence_offset);
    ++result.received;
    if (sequence == 0) result.first_arrived = true;
    if (sequence == packets - 1) result.last_arrived = true;
  }
  return result;
}

int main(int argc, char** argv) {
  const auto batches = static_cast<std::uint32_t>(number_argument(argc, argv, 6, usage));
  const sockaddr_in monitor = address_of(argv[1], static_cast<std::uint16_t>(number_argument(argc, argv, 2, usage)));
  const auto local_port = static_cast<std::uint16_t>(number_argument(argc, argv, 3, usage));
  const auto packets = static_cast<std::uint32_t>(number_argument(argc, argv, 4, usage));
  static std::uint8_t command[operation_bytes];
  write_command(command, packets, static_cast<std::uint32_t>(number_argument(argc, argv, 5, usage)), local_port);
  const int socket_fd = open_udp_socket(local_port);
  const timeval silence = {1, 0};
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);

  std::uint32_t bad = 0;
  std::uint64_t lost = 0;
  const std::int64_t start = clock_usec();
  for (std::uint32_t batch = 0; batch < batches; ++batch) {
    write_message_header(command, operation, batch, 0, operation_bytes);
    send_packet(socket_fd, command, operation_bytes, monitor);
    const batch_result result = receive_batch(socket_fd, batch, packets);
    if (result.first_arrived && result.last_arrived) {
      lost += packets - result.received;
    } else {
      ++bad;
    }
  }
  std::printf("batches %u bad %u lost %llu seconds %.6f\n", batches, bad, static_cast<unsigned long long>(lost),
              static_cast<double>(clock_usec() - start) / 1e6);
}
