// Sends UDP messages or ICMP echo frames (KIND is the port, or the ICMP type: 8 requests, 0 replies) as fast as the
// kernel takes them, reading nothing: PER_CALL packets in each sendmmsg, or one in each sendto. Prints how many it
// sent.
#include "bare.h"
#include "wire/bytes.h"
#include "wire/icmp_echo.h"

static constexpr const char* usage = "CARRIER(udp|icmp) HOST KIND BYTES SECONDS PER_CALL";
static constexpr std::uint64_t calls_between_clock_readings = 16;
static constexpr unsigned most_per_call = 64;
static constexpr std::size_t longest_packet_bytes = 4096;

struct blast {
  bool udp;
  std::uint8_t icmp_type;
  std::uint32_t bytes;
  sockaddr_in destination;
  int socket_fd;
  unsigned per_call;
};

static std::array<std::array<std::uint8_t, longest_packet_bytes>, most_per_call> packets;
static std::array<iovec, most_per_call> parts;
static std::array<mmsghdr, most_per_call> messages;

static void prepare_messages(blast* run) {
  for (unsigned i = 0; i < run->per_call; ++i) {
    parts[i] = {packets[i].data(), run->bytes};
    messages[i].msg_hdr.msg_name = &run->destination;
    messages[i].msg_hdr.msg_namelen = sizeof run->destination;
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
}

// Returns how many packets went out.
static unsigned send_some(const blast& run, std::uint32_t sequence) {
  for (unsigned i = 0; i < run.per_call; ++i) {
    const icmp_echo echo = {run.icmp_type, 0, static_cast<std::uint16_t>(sequence + i)};
    if (run.udp) {
      write_message(packets[i].data(), message_data, 0, sequence + i, run.bytes);
    } else {
      write_icmp_echo(&echo, packets[i].data());
    }
  }
  if (run.per_call == 1) {
    send_packet(run.socket_fd, packets[0].data(), run.bytes, run.destination);
    return 1;
  }
  const int count = sendmmsg(run.socket_fd, messages.data(), run.per_call, 0);
  if (count < 0) fail("sendmmsg");
  return static_cast<unsigned>(count);
}

int main(int argc, char** argv) {
  blast run = {};
  run.per_call = number_argument(argc, argv, 6, usage);
  run.bytes = number_argument(argc, argv, 4, usage);
  if (run.per_call == 0 || run.per_call > most_per_call || run.bytes > longest_packet_bytes) fail(usage);
  run.udp = std::strcmp(argv[1], "udp") == 0;
  const std::uint32_t kind = number_argument(argc, argv, 3, usage);
  run.icmp_type = static_cast<std::uint8_t>(kind);
  run.destination = address_of(argv[2], run.udp ? kind : 0);
  run.socket_fd = run.udp ? open_socket(SOCK_DGRAM, IPPROTO_UDP) : open_icmp_socket(0);  // no answer is queued
  prepare_messages(&run);
  std::uint64_t sent = 0;
  const std::int64_t end = clock_usec() + std::int64_t{number_argument(argc, argv, 5, usage)} * 1000000;
  for (std::uint64_t calls = 0; calls % calls_between_clock_readings != 0 || clock_usec() < end; ++calls) {
    sent += send_some(run, static_cast<std::uint32_t>(sent));
  }
  std::printf("sent %llu\n", static_cast<unsigned long long>(sent));
}
