// Sends UDP messages or ICMP echo frames (KIND is the port, or the ICMP type: 8 requests, 0 replies) as fast as the
// kernel takes them, reading nothing, PER_CALL packets in each sendmmsg. Prints how many it sent.
#include "bare.h"
#include "wire/icmp_echo.h"

static constexpr const char* usage = "CARRIER(udp|icmp) HOST KIND BYTES SECONDS PER_CALL";
static constexpr std::uint64_t calls_between_clock_readings = 16;
static constexpr std::uint32_t most_per_call = 64;
static constexpr std::uint32_t longest_packet_bytes = 4096;

static std::array<std::array<std::uint8_t, longest_packet_bytes>, most_per_call> packets;
static std::array<iovec, most_per_call> parts;
static std::array<mmsghdr, most_per_call> messages;

int main(int argc, char** argv) {
  const std::uint32_t per_call = std::min(number_argument(argc, argv, 6, usage), most_per_call);
  const std::uint32_t bytes = std::min(number_argument(argc, argv, 4, usage), longest_packet_bytes);
  const std::uint32_t kind = number_argument(argc, argv, 3, usage);
  const bool udp = std::strcmp(argv[1], "udp") == 0;
  sockaddr_in destination = address_of(argv[2], udp ? kind : 0);
  const int socket_fd = udp ? open_socket(SOCK_DGRAM, IPPROTO_UDP) : open_icmp_socket(0);  // no answer is queued
  for (std::uint32_t i = 0; i < per_call; ++i) {
    parts[i] = {packets[i].data(), bytes};
    messages[i].msg_hdr = message_to(&destination, &parts[i]);
  }
  std::uint64_t sent = 0;
  const std::int64_t end = clock_usec() + std::int64_t{number_argument(argc, argv, 5, usage)} * 1000000;
  for (std::uint64_t calls = 0; calls % calls_between_clock_readings != 0 || clock_usec() < end; ++calls) {
    for (std::uint32_t i = 0; i < per_call; ++i) {
      const auto sequence = static_cast<std::uint32_t>(sent + i);
      const icmp_echo echo = {static_cast<std::uint8_t>(kind), 0, static_cast<std::uint16_t>(sequence)};
      if (udp) {
        write_message(packets[i].data(), message_data, 0, sequence, bytes);
      } else {
        write_icmp_echo(&echo, packets[i].data());
      }
    }
    const int count = sendmmsg(socket_fd, messages.data(), per_call, 0);
    if (count < 0) fail("sendmmsg");
    sent += static_cast<std::uint64_t>(count);
  }
  std::printf("sent %llu\n", static_cast<unsigned long long>(sent));
}
