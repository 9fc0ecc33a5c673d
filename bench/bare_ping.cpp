// Pings one host, or each host of a range once, with at most WINDOW requests unanswered: a sendto for each, and a
// recvmmsg with the kernel's stamps for the answers that are there. A request is lost when a later one is answered
// first, or after SILENCE_MS without any reply. CARRIER is icmp, or the UDP port of who answers test messages. Prints
// how many were sent and answered.
#include "bare.h"
#include "wire/icmp_echo.h"

static constexpr const char* usage = "CARRIER FIRST_HOST HOSTS REQUESTS_PER_HOST BYTES WINDOW SILENCE_MS";

static bool udp = false;
static const auto identifier = static_cast<std::uint16_t>(getpid());
static reader answers;

static void write_request(std::uint8_t* packet, std::uint32_t sequence, std::uint32_t bytes) {
  const icmp_echo echo = {icmp_echo_request, identifier, static_cast<std::uint16_t>(sequence)};
  if (udp) {
    write_message(packet, message_echo_request, 0, sequence, bytes);
  } else {
    write_icmp_echo(&echo, packet);
  }
}

// Whether the message answers us; how many requests have been sent since the one that it answers, at most 65535.
static bool is_answer(std::span<const std::uint8_t> bytes, std::uint32_t sent, std::uint32_t* sent_since) {
  test_header header = {};
  icmp_datagram parts = {};
  if (udp) {
    if (!read_test_header(bytes, &header)) return false;
    *sent_since = sent - 1 - header.sequence;
    return header.type == message_echo_reply;
  }
  if (!locate_icmp(bytes, &parts)) return false;
  const icmp_echo echo = read_icmp_echo(parts.icmp);
  *sent_since = static_cast<std::uint16_t>(sent - 1 - echo.sequence);
  return echo.type == icmp_echo_reply && echo.identifier == identifier;
}

int main(int argc, char** argv) {
  const std::uint32_t silence_ms = number_argument(argc, argv, 7, usage);
  udp = std::strcmp(argv[1], "icmp") != 0;
  sockaddr_in destination = address_of(argv[2], udp ? number_argument(argc, argv, 1, usage) : 0);
  const std::uint32_t requests_per_host = number_argument(argc, argv, 4, usage);
  const std::uint32_t bytes = number_argument(argc, argv, 5, usage);
  const std::uint32_t window = number_argument(argc, argv, 6, usage);
  static std::uint8_t packet[message_buffer_bytes];
  answers.socket_fd = udp ? open_socket(SOCK_DGRAM, IPPROTO_UDP) : open_icmp_socket(1U << icmp_echo_reply);
  switch_on(answers.socket_fd, SOL_SOCKET, SO_TIMESTAMP);
  give_up_after(answers.socket_fd, silence_ms);

  const std::uint32_t total = number_argument(argc, argv, 3, usage) * requests_per_host;
  std::uint32_t sent = 0;
  std::uint32_t answered = 0;
  std::uint32_t in_flight = 0;  // requests after the newest one answered
  while (sent < total || in_flight > 0) {
    while (in_flight < window && sent < total) {
      write_request(packet, sent, bytes);
      send_packet(answers.socket_fd, packet, bytes, destination);
      ++sent;
      ++in_flight;
      if (sent % requests_per_host == 0) destination.sin_addr.s_addr = htonl(ntohl(destination.sin_addr.s_addr) + 1);
    }
    const int got = read_messages(&answers, 0);
    if (got < 0) in_flight = 0;
    for (int i = 0; i < got; ++i) {
      std::uint32_t sent_since = 0;
      if (!is_answer(message_of(answers, i), sent, &sent_since)) continue;
      ++answered;
      if (sent_since < in_flight) in_flight = sent_since;
    }
  }
  std::printf("sent %u answered %u\n", sent, answered);
}
