// The answering half of a pair. Answers each echo request at once; streams back, at once and back to back, the packets
// that a command asks for. On SIGTERM it prints how many commands came and what the first and the last REPORTED of them
// took, from the arrival of one command to that of the next: the medians, which a stall of the machine leaves alone.
#include <vector>

#include "bare.h"
#include "wire/bytes.h"
#include "wire/remote_command.h"

static constexpr const char* usage = "PORT REPORTED";
static constexpr std::uint32_t packets_per_call = 64;
static constexpr std::uint32_t longest_packet_bytes = 2048;

static std::array<std::array<std::uint8_t, longest_packet_bytes>, packets_per_call> packets;
static std::array<mmsghdr, packets_per_call> messages;
static std::array<iovec, packets_per_call> parts;

static void send_packets(int socket_fd, std::uint32_t count) {
  for (std::uint32_t sent = 0; sent < count;) {
    const int got = sendmmsg(socket_fd, &messages[sent], count - sent, 0);
    if (got < 0) fail("sendmmsg");
    sent += static_cast<std::uint32_t>(got);
  }
}

static void stream_back(int socket_fd, const test_header& header, const std::uint8_t* operation,
                        sockaddr_in* commander) {
  test_settings own = {};
  test_settings command = {};
  command_body body = {};
  own.udp = 1;
  std::memcpy(&body, operation + test_header_bytes, sizeof body);
  read_remote_command(&body, commander->sin_addr.s_addr, &own, &command);
  const std::uint32_t asked = sizes_for_carrier(true, false, command.ip_length).transmit_length;
  const std::uint32_t length = std::min(asked, longest_packet_bytes);
  for (std::uint32_t sent = 0; sent < command.echo_count;) {
    const std::uint32_t count = std::min(packets_per_call, command.echo_count - sent);
    for (std::uint32_t i = 0; i < count; ++i, ++sent) {
      write_message(packets[i].data(), message_data, header.batch, sent, length);
      parts[i] = {packets[i].data(), length};
      messages[i].msg_hdr = message_to(commander, &parts[i]);
    }
    send_packets(socket_fd, count);
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
      sockaddr_in* source = &from.sources[static_cast<std::size_t>(i)];
      if (!read_test_header(message, &header)) continue;
      if (header.type == message_echo_request) {
        write_be32(from.bytes[static_cast<std::size_t>(i)].data(), message_echo_reply);
        send_packet(from.socket_fd, message.data(), message.size(), *source);
      } else if (header.type == message_operation && message.size() >= sizeof(operation_message)) {
        arrivals.push_back(clock_usec());
        stream_back(from.socket_fd, header, message.data(), source);
      }
    }
  }
  print_report(arrivals, number_argument(argc, argv, 2, usage));
}
