// Sends UDP messages or ICMP echo frames (KIND is the port, or the ICMP type: 8 requests, 0 replies) as fast as the
// kernel takes them, reading nothing: PER_CALL packets in each sendmmsg, or one in each sendto. Prints how many it
// sent.
#include <array>

#include "bare_common.h"

static constexpr const char* usage = "CARRIER(udp|icmp) HOST KIND PACKET_BYTES SECONDS PER_CALL";
static constexpr std::uint64_t calls_between_clock_readings = 16;
static constexpr unsigned most_per_call = 64;
static constexpr std::size_t longest_packet_bytes = 4096;

struct blast {
  bool udp;
  std::uint8_t icmp_type;
  std::uint16_t identifier;
  std::size_t packet_bytes;
  sockaddr_in destination;
  int socket_fd;
  unsigned per_call;
};

static std::array<std::array<std::uint8_t, longest_packet_bytes>, most_per_call> packets;
static std::array<iovec, most_per_call> pieces;
static std::array<mmsghdr, most_per_call> messages;

static void prepare_messages(blast* run) {
  for (unsigned i = 0; i < run->per_call; ++i) {
    pieces[i] = {packets[i].data(), run->packet_bytes};
    messages[i].msg_hdr.msg_name = &run->destination;
    messages[i].msg_hdr.msg_namelen = sizeof run->destination;
    messages[i].msg_hdr.msg_iov = &pieces[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
}

static void write_packet(const blast& run, std::uint8_t* packet, std::uint32_t sequence) {
  if (run.udp) {
    write_be32(packet + sequence_offset, sequence);
  } else {
    write_echo_frame(packet, run.icmp_type, run.identifier, sequence);
  }
}

// Returns how many packets went out.
static unsigned send_some(const blast& run, std::uint64_t sent) {
  for (unsigned i = 0; i < run.per_call; ++i) {
    write_packet(run, packets[i].data(), static_cast<std::uint32_t>(sent + i));
  }
  if (run.per_call == 1) {
    send_packet(run.socket_fd, packets[0].data(), run.packet_bytes, run.destination);
    return 1;
  }
  const int count = sendmmsg(run.socket_fd, messages.data(), run.per_call, 0);
  if (count < 0) fail("sendmmsg");
  return static_cast<unsigned>(count);
}

static blast read_arguments(int argc, char** argv) {
  blast run = {};
  run.per_call = static_cast<unsigned>(number_argument(argc, argv, 6, usage));
  run.packet_bytes = static_cast<std::size_t>(number_argument(argc, argv, 4, usage));
  if (run.per_call == 0 || run.per_call > most_per_call || run.packet_bytes > longest_packet_bytes) fail(usage);
  const auto kind = static_cast<std::uint16_t>(number_argument(argc, argv, 3, usage));
  run.udp = std::strcmp(argv[1], "udp") == 0;
  run.icmp_type = static_cast<std::uint8_t>(kind);
  run.identifier = static_cast<std::uint16_t>(own_process_id);
  run.destination = address_of(argv[2], run.udp ? kind : 0);
  run.socket_fd = run.udp ? open_udp_socket(0) : open_icmp_socket(0);  // answers are of no interest: none is queued
  return run;
}

int main(int argc, char** argv) {
  blast run = read_arguments(argc, argv);
  prepare_messages(&run);
  std::uint64_t sent = 0;
  const std::int64_t end = clock_usec() + static_cast<std::int64_t>(number_argument(argc, argv, 5, usage) * 1e6);
  for (std::uint64_t calls = 0; calls % calls_between_clock_readings != 0 || clock_usec() < end; ++calls) {
    sent += send_some(run, sent);
  }
  std::printf("sent %llu\n", static_cast<unsigned long long>(sent));
}
