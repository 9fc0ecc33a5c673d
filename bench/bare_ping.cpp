// Pings one host, or each host of a range once, with at most WINDOW requests unanswered: a sendto and a blocking
// recvfrom for each. A request is lost when a later one is answered first, or after SILENCE_MS without any reply.
// Prints how many were sent and answered.
#include "bare_common.h"

static constexpr const char* usage = "FIRST_HOST HOSTS REQUESTS_PER_HOST PACKET_BYTES WINDOW SILENCE_MS";

static void give_up_after(int socket_fd, int silence_ms) {
  const timeval silence = {silence_ms / 1000, (silence_ms % 1000) * 1000};
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
}

int main(int argc, char** argv) {
  const auto silence_ms = static_cast<int>(number_argument(argc, argv, 6, usage));
  sockaddr_in destination = address_of(argv[1], 0);
  const auto hosts = static_cast<std::uint64_t>(number_argument(argc, argv, 2, usage));
  const auto requests_per_host = static_cast<std::uint64_t>(number_argument(argc, argv, 3, usage));
  const auto packet_bytes = static_cast<std::size_t>(number_argument(argc, argv, 4, usage));
  const auto window = static_cast<std::uint64_t>(number_argument(argc, argv, 5, usage));
  static std::uint8_t packet[largest_packet_bytes];
  static std::uint8_t reply[largest_packet_bytes];
  const int socket_fd = open_icmp_socket(1U << ICMP_ECHOREPLY);
  give_up_after(socket_fd, silence_ms);
  const auto identifier = static_cast<std::uint16_t>(own_process_id);

  const std::uint64_t total = hosts * requests_per_host;
  std::uint64_t sent = 0;
  std::uint64_t answered = 0;
  std::uint64_t in_flight = 0;  // requests after the newest one answered
  while (sent < total || in_flight > 0) {
    while (in_flight < window && sent < total) {
      write_echo_frame(packet, ICMP_ECHO, identifier, static_cast<std::uint32_t>(sent));
      send_packet(socket_fd, packet, packet_bytes, destination);
      ++sent;
      ++in_flight;
      if (sent % requests_per_host == 0) destination.sin_addr.s_addr = htonl(ntohl(destination.sin_addr.s_addr) + 1);
    }
    const ssize_t length = recvfrom(socket_fd, reply, sizeof reply, 0, nullptr, nullptr);
    if (length < 0) {
      in_flight = 0;
    } else if (is_our_reply(reply, length, identifier)) {
      const auto sent_since = static_cast<std::uint16_t>(sent - 1 - reply_sequence(reply));
      ++answered;
      if (sent_since < in_flight) in_flight = sent_since;
    }
  }
  std::printf("sent %llu answered %llu\n", static_cast<unsigned long long>(sent),
              static_cast<unsigned long long>(answered));
}
