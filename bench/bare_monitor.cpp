// The answering half of a partner pair: waits for a command and streams back, at once and back to back, the packets
// it asks for. On SIGTERM it prints how many commands came and what the first and the last REPORTED of them took, from
// the arrival of one command to the arrival of the next.
#include <csignal>
#include <vector>

#include "bare_common.h"

static constexpr const char* usage = "PORT REPORTED";
static constexpr std::uint32_t udp_and_ip_header_bytes = 28;

static volatile std::sig_atomic_t told_to_end = 0;

static void end_soon(int /*signal*/) {
  told_to_end = 1;
}

static void stream_back(int socket_fd, const std::uint8_t* command, const sockaddr_in& commander) {
  static std::uint8_t packet[largest_packet_bytes];
  const std::uint32_t batch = read_be32(command + batch_offset);
  const std::uint32_t count = read_be32(command + command_echo_count_offset);
  const std::uint32_t asked = read_be32(command + command_ip_length_offset);
  std::size_t length = message_header_bytes;
  if (asked > message_header_bytes + udp_and_ip_header_bytes) length = asked - udp_and_ip_header_bytes;
  write_message_header(packet, data, batch, 0, length);
  for (std::uint32_t sequence = 0; sequence < count; ++sequence) {
    write_be32(packet + sequence_offset, sequence);
    send_packet(socket_fd, packet, length, commander);
  }
}

static void print_report(const std::vector<std::int64_t>& arrivals, std::size_t reported) {
  std::printf("commands %zu", arrivals.size());
  if (arrivals.size() > 2 * reported) {
    const std::int64_t first = arrivals[reported] - arrivals.front();
    const std::int64_t last = arrivals.back() - arrivals[arrivals.size() - 1 - reported];
    std::printf(" first_usec %lld last_usec %lld", static_cast<long long>(first), static_cast<long long>(last));
  }
  std::printf("\n");
}

int main(int argc, char** argv) {
  const auto reported = static_cast<std::size_t>(number_argument(argc, argv, 2, usage));
  const int socket_fd = open_udp_socket(static_cast<std::uint16_t>(number_argument(argc, argv, 1, usage)));
  struct sigaction ending = {};
  ending.sa_handler = end_soon;
  sigaction(SIGTERM, &ending, nullptr);
  std::vector<std::int64_t> arrivals;
  arrivals.reserve(1U << 20U);
  std::printf("ready\n");
  std::fflush(stdout);

  static std::uint8_t command[largest_packet_bytes];
  while (told_to_end == 0) {
    sockaddr_in commander = {};
    socklen_t address_bytes = sizeof commander;
    const ssize_t length =
        recvfrom(socket_fd, command, sizeof command, 0, reinterpret_cast<sockaddr*>(&commander), &address_bytes);
    if (length < static_cast<ssize_t>(operation_bytes)) continue;
    arrivals.push_back(clock_usec());
    stream_back(socket_fd, command, commander);
  }
  print_report(arrivals, reported);
}
