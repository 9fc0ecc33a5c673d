// Sends ICMP echo frames (type 8 requests, type 0 replies) as fast as the kernel takes them, reading nothing. Prints
// how many it sent.
#include "bare_common.h"

static constexpr const char* usage = "HOST ICMP_TYPE PACKET_BYTES SECONDS";
static constexpr std::uint64_t packets_between_clock_readings = 256;

int main(int argc, char** argv) {
  const double seconds = number_argument(argc, argv, 4, usage);
  const sockaddr_in destination = address_of(argv[1], 0);
  const auto type = static_cast<std::uint8_t>(number_argument(argc, argv, 2, usage));
  const auto packet_bytes = static_cast<std::size_t>(number_argument(argc, argv, 3, usage));
  static std::uint8_t packet[largest_packet_bytes];
  const int socket_fd = open_icmp_socket(0);  // answers are of no interest: none is queued
  const auto identifier = static_cast<std::uint16_t>(own_process_id);

  std::uint64_t sent = 0;
  const std::int64_t end = clock_usec() + static_cast<std::int64_t>(seconds * 1e6);
  while (sent % packets_between_clock_readings != 0 || clock_usec() < end) {
    write_echo_frame(packet, type, identifier, static_cast<std::uint32_t>(sent));
    send_packet(socket_fd, packet, packet_bytes, destination);
    ++sent;
  }
  std::printf("sent %llu\n", static_cast<unsigned long long>(sent));
}
