// What the bare loops share: arguments, sockets, the clock and the frames they put on the wire. A bare loop does the
// system calls its job cannot do without and no bookkeeping; it is the floor that the other programs are held against.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

inline constexpr std::size_t largest_packet_bytes = 65536;
inline constexpr int socket_buffer_bytes = 1048576;  // the size that every socket of the tested program asks for
inline constexpr std::size_t icmp_header_bytes = 8;
inline constexpr std::size_t message_header_bytes = 20;
inline constexpr std::size_t operation_bytes = 164;

// Offsets inside a test message and inside the command that asks for a stream, all fields 32 bits in network order.
inline constexpr std::size_t type_offset = 0;
inline constexpr std::size_t process_id_offset = 4;
inline constexpr std::size_t batch_offset = 8;
inline constexpr std::size_t sequence_offset = 12;
inline constexpr std::size_t length_offset = 16;
inline constexpr std::size_t command_echo_count_offset = 28;
inline constexpr std::size_t command_ip_length_offset = 52;

enum message_type : std::uint32_t { echo_request = 1, echo_reply = 2, data = 3, operation = 4 };

[[noreturn]] inline void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

inline const auto own_process_id = static_cast<std::uint32_t>(getpid());

// The number in argument `index`; ends the program with `usage` when it is not there.
inline double number_argument(int argc, char** argv, int index, const char* usage) {
  if (index < argc) return std::strtod(argv[index], nullptr);
  std::fprintf(stderr, "usage: %s %s\n", argv[0], usage);
  std::exit(2);
}

inline std::int64_t clock_usec() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

inline sockaddr_in address_of(const char* host, std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host, &address.sin_addr) != 1) fail(host);
  return address;
}

inline void set_buffers(int socket_fd) {
  setsockopt(socket_fd, SOL_SOCKET, SO_SNDBUF, &socket_buffer_bytes, sizeof socket_buffer_bytes);
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVBUF, &socket_buffer_bytes, sizeof socket_buffer_bytes);
}

// A UDP socket; `port` 0 leaves it unbound.
inline int open_udp_socket(std::uint16_t port) {
  const int socket_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (socket_fd < 0) fail("socket");
  set_buffers(socket_fd);
  const sockaddr_in local = address_of("0.0.0.0", port);
  if (port != 0 && bind(socket_fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) fail("bind");
  return socket_fd;
}

// A raw ICMP socket that is handed messages of the types in `wanted_types` alone (a bit per type).
inline int open_icmp_socket(std::uint32_t wanted_types) {
  const int socket_fd = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (socket_fd < 0) fail("socket");
  set_buffers(socket_fd);
  const std::uint32_t refused_types = ~wanted_types;
  constexpr int icmp_filter_option = 1;  // ICMP_FILTER of <linux/icmp.h>, which clashes with <netinet/ip_icmp.h>
  setsockopt(socket_fd, SOL_RAW, icmp_filter_option, &refused_types, sizeof refused_types);
  return socket_fd;
}

inline void send_packet(int socket_fd, const std::uint8_t* packet, std::size_t length, const sockaddr_in& destination) {
  if (sendto(socket_fd, packet, length, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof destination) < 0) {
    fail("sendto");
  }
}

inline void write_be32(std::uint8_t* bytes, std::uint32_t value) {
  value = htonl(value);
  std::memcpy(bytes, &value, sizeof value);
}

inline std::uint32_t read_be32(const std::uint8_t* bytes) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes, sizeof value);
  return ntohl(value);
}

// An echo frame (RFC 792) in `packet`, whose payload is all zero and so adds nothing to the checksum.
inline void write_echo_frame(std::uint8_t* packet, std::uint8_t type, std::uint16_t identifier,
                             std::uint32_t sequence) {
  const std::uint16_t words[3] = {htons(static_cast<std::uint16_t>(type << 8)), identifier,
                                  htons(static_cast<std::uint16_t>(sequence))};
  std::uint32_t sum = std::uint32_t{words[0]} + words[1] + words[2];
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  const std::uint16_t checksum = static_cast<std::uint16_t>(~sum);
  std::memcpy(packet, &words[0], 2);
  std::memcpy(packet + 2, &checksum, 2);
  std::memcpy(packet + 4, &words[1], 4);
}

// True when `datagram`, as a raw socket delivers it, is an echo reply with our identifier.
inline bool is_our_reply(const std::uint8_t* datagram, ssize_t length, std::uint16_t identifier) {
  if (length < 20) return false;
  const std::size_t ip_header_bytes = std::size_t{datagram[0] & 0x0fU} * 4;
  if (static_cast<std::size_t>(length) < ip_header_bytes + icmp_header_bytes) return false;
  const std::uint8_t* icmp = datagram + ip_header_bytes;
  return icmp[0] == ICMP_ECHOREPLY && std::memcmp(icmp + 4, &identifier, sizeof identifier) == 0;
}

// The sequence number of a reply that is_our_reply has passed.
inline std::uint16_t reply_sequence(const std::uint8_t* datagram) {
  const std::uint8_t* icmp = datagram + std::size_t{datagram[0] & 0x0fU} * 4;
  return static_cast<std::uint16_t>((icmp[6] << 8) | icmp[7]);
}

inline void write_message_header(std::uint8_t* packet, message_type type, std::uint32_t batch, std::uint32_t sequence,
                                 std::size_t length) {
  write_be32(packet + type_offset, type);
  write_be32(packet + process_id_offset, own_process_id);
  write_be32(packet + batch_offset, batch);
  write_be32(packet + sequence_offset, sequence);
  write_be32(packet + length_offset, static_cast<std::uint32_t>(length));
}
