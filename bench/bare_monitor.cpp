// The answering half of a pair. Answers each echo request at once; streams back, at once and back to back, the packets
// that a command asks for: in calls of sendmmsg, or with SEGMENTS above 1 as so many that the kernel takes apart
// (UDP_SEGMENT), which cross a veth and arrive as one. On SIGTERM it prints how many commands came and what the first
// and the last REPORTED of them took, from the arrival of one command to that of the next: the medians, which a stall
// of the machine leaves alone.
#include <netinet/udp.h>

#include <algorithm>
#include <vector>

#include "bare.h"
#include "wire/bytes.h"
#include "wire/remote_command.h"

static constexpr const char* usage = "PORT REPORTED SEGMENTS";
static constexpr std::uint32_t packets_per_call = 64;
static constexpr std::uint32_t longest_packet_bytes = 2048;
static constexpr std::uint32_t most_bytes = largest_ip_length - ipv4_header_bytes - udp_header_bytes;

struct stream {
  int socket_fd;
  std::uint32_t segments;  // in a datagram
  std::uint32_t length;
  sockaddr_in commander;
};

static std::array<std::uint8_t, std::size_t{packets_per_call} * longest_packet_bytes> packets;

// Of `count` packets that lie side by side.
static void send_packets(const stream& to, std::uint32_t count) {
  static std::array<mmsghdr, packets_per_call> messages;
  static std::array<iovec, packets_per_call> parts;
  sockaddr_in commander = to.commander;
  unsigned used = 0;
  for (std::uint32_t i = 0; i < count; i += to.segments, ++used) {
    parts[used] = {packets.data() + std::size_t{i} * to.length,
                   std::size_t{std::min(to.segments, count - i)} * to.length};
    messages[used].msg_hdr = {};
    messages[used].msg_hdr.msg_name = &commander;
    messages[used].msg_hdr.msg_namelen = sizeof commander;
    messages[used].msg_hdr.msg_iov = &parts[used];
    messages[used].msg_hdr.msg_iovlen = 1;
  }
  for (unsigned sent = 0; sent < used;) {
    const int got = sendmmsg(to.socket_fd, &messages[sent], used - sent, 0);
    if (got < 0) fail("sendmmsg");
    sent += static_cast<unsigned>(got);
  }
}

static void stream_back(stream* to, std::span<const std::uint8_t> operation, const sockaddr_in& commander) {
  test_settings own = {};
  test_settings command = {};
  command_body body = {};
  own.udp = 1;
  to->commander = commander;
  test_header header = {};
  if (!read_test_header(operation, &header)) return;
  std::memcpy(&body, operation.data() + test_header_bytes, sizeof body);
  read_remote_command(&body, commander.sin_addr.s_addr, &own, &command);
  to->length = std::min(sizes_for_carrier(true, false, command.ip_length).transmit_length, longest_packet_bytes);
  const int segment_bytes = static_cast<int>(to->length);
  if (to->segments > 1) setsockopt(to->socket_fd, SOL_UDP, UDP_SEGMENT, &segment_bytes, sizeof segment_bytes);
  for (std::uint32_t sent = 0; sent < command.echo_count;) {
    const std::uint32_t count = std::min(packets_per_call, command.echo_count - sent);
    for (std::uint32_t i = 0; i < count; ++i, ++sent) {
      write_message(packets.data() + std::size_t{i} * to->length, message_data, header.batch, sent, to->length);
    }
    send_packets(*to, count);
  }
}

static double median_gap_usec(const std::int64_t* arrivals, std::size_t count) {
  std::vector<std::int64_t> gaps(count);
  for (std::size_t i = 0; i < count; ++i) gaps[i] = arrivals[i + 1] - arrivals[i];
  std::sort(gaps.begin(), gaps.end());
  return static_cast<double>(gaps[count / 2]);
}

static void print_report(const std::vector<std::int64_t>& arrivals, std::size_t reported) {
  std::printf("commands %zu", arrivals.size());
  if (arrivals.size() > 2 * reported) {
    std::printf(" first_usec %.1f last_usec %.1f", median_gap_usec(arrivals.data(), reported),
                median_gap_usec(&arrivals[arrivals.size() - reported - 1], reported));
  }
  std::printf("\n");
}

int main(int argc, char** argv) {
  static reader from;
  stream to = {.socket_fd = open_socket(SOCK_DGRAM, IPPROTO_UDP),  // segmentation is a property of a socket
               .segments = std::min(number_argument(argc, argv, 3, usage), most_bytes / 1472),
               .length = 0,
               .commander = {}};
  from.socket_fd = open_socket(SOCK_DGRAM, IPPROTO_UDP);
  bind_to(from.socket_fd, number_argument(argc, argv, 1, usage));
  std::vector<std::int64_t> arrivals;
  arrivals.reserve(1U << 20U);
  run_until_told();
  while (told_to_end == 0) {
    const int got = read_messages(&from, 0);
    for (int i = 0; i < got; ++i) {
      test_header header = {};
      const std::span<const std::uint8_t> message = message_of(from, i);
      const sockaddr_in& source = from.sources[static_cast<std::size_t>(i)];
      if (!read_test_header(message, &header)) continue;
      if (header.type == message_echo_request) {
        write_be32(from.bytes[static_cast<std::size_t>(i)].data(), message_echo_reply);
        send_packet(from.socket_fd, message.data(), message.size(), source);
      } else if (header.type == message_operation && message.size() >= sizeof(operation_message)) {
        arrivals.push_back(clock_usec());
        stream_back(&to, message, source);
      }
    }
  }
  print_report(arrivals, number_argument(argc, argv, 2, usage));
}
