// Sends UDP packets as fast as the kernel takes them: one sendto each. Prints how many it sent.
#include "bare_common.h"

static constexpr const char* usage = "HOST PORT PACKET_BYTES SECONDS";
static constexpr std::uint64_t packets_between_clock_readings = 256;

int main(int argc, char** argv) {
  const double seconds = number_argument(argc, argv, 4, usage);
  const sockaddr_in destination =
      address_of(argv[1], static_cast<std::uint16_t>(number_argument(argc, argv, 2, usage)));
  const auto packet_bytes = static_cast<std::size_t>(number_argument(argc, argv, 3, usage));
  static std::uint8_t packet[largest_packet_bytes];
  const int socket_fd = open_udp_socket(0);

  std::uint64_t sent = 0;
  const std::int64_t end = clock_usec() + static_cast<std::int64_t>(seconds * 1e6);
  while (sent % packets_between_clock_readings != 0 || clock_usec() < end) {
    write_be32(packet + sequence_offset, static_cast<std::uint32_t>(sent));
    send_packet(socket_fd, packet, packet_bytes, destination);
    ++sent;
  }
  std::printf("sent %llu\n", static_cast<unsigned long long>(sent));
}
