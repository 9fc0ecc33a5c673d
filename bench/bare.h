// What the bare loops share: arguments, sockets and reading in bulk. A bare loop makes the system calls that its job
// cannot do without and keeps no books; it is the floor that the other programs are held against.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>

#include "wire/messages.h"
#include "wire/packet_sizes.h"

[[noreturn]] inline void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

// The number in argument `index`; ends the program with `usage` when it is not there.
inline std::uint32_t number_argument(int argc, char** argv, int index, const char* usage) {
  if (index < argc) return static_cast<std::uint32_t>(std::strtoul(argv[index], nullptr, 10));
  std::fprintf(stderr, "usage: %s %s\n", argv[0], usage);
  std::exit(2);
}

inline std::int64_t clock_usec() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

inline sockaddr_in address_of(const char* host, std::uint32_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, host, &address.sin_addr) != 1) fail(host);
  return address;
}

// With the buffers that every socket of the tested program has.
inline int open_socket(int type, int protocol, int buffer_bytes = 1048576) {
  const int socket_fd = socket(AF_INET, type, protocol);
  if (socket_fd < 0) fail("socket");
  setsockopt(socket_fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer_bytes, sizeof buffer_bytes);
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes);
  return socket_fd;
}

inline void bind_to(int socket_fd, std::uint32_t port) {
  const sockaddr_in local = address_of("0.0.0.0", port);
  if (bind(socket_fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) fail("bind");
}

// A raw ICMP socket that is handed messages of the types in `wanted_types` alone (a bit per type).
inline int open_icmp_socket(std::uint32_t wanted_types) {
  const int socket_fd = open_socket(SOCK_RAW, IPPROTO_ICMP);
  const std::uint32_t refused_types = ~wanted_types;
  constexpr int icmp_filter_option = 1;  // ICMP_FILTER of <linux/icmp.h>
  setsockopt(socket_fd, SOL_RAW, icmp_filter_option, &refused_types, sizeof refused_types);
  return socket_fd;
}

inline void switch_on(int socket_fd, int level, int option) {
  constexpr int on = 1;
  setsockopt(socket_fd, level, option, &on, sizeof on);
}

inline void give_up_after(int socket_fd, std::uint32_t silence_ms) {
  const timeval silence = {silence_ms / 1000, static_cast<suseconds_t>(silence_ms % 1000 * 1000)};
  setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
}

inline void send_packet(int socket_fd, const std::uint8_t* packet, std::size_t length, const sockaddr_in& destination) {
  if (sendto(socket_fd, packet, length, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof destination) < 0) {
    fail("sendto");
  }
}

inline msghdr message_to(sockaddr_in* peer, iovec* part) {
  msghdr header = {};
  header.msg_name = peer;
  header.msg_namelen = sizeof *peer;
  header.msg_iov = part;
  header.msg_iovlen = 1;
  return header;
}

inline void write_message(std::uint8_t* message, message_type type, std::uint32_t batch, std::uint32_t sequence,
                          std::uint32_t length) {
  static const auto own_process_id = static_cast<std::uint32_t>(getpid());
  const test_header header = {type, own_process_id, batch, sequence, length};
  write_test_header(&header, message);
}

// Messages that one call reads, as many as are there: of each its head, who sent it, and what the kernel tells of it.
struct reader {
  static constexpr unsigned messages_per_call = 64;
  static constexpr std::size_t kept_bytes = 256;
  static constexpr std::size_t control_bytes = 128;

  int socket_fd;
  unsigned unused;  // of the messages, those behind the last read's: prepared, or none at first
  std::array<mmsghdr, messages_per_call> headers;
  std::array<iovec, messages_per_call> parts;
  std::array<sockaddr_in, messages_per_call> sources;
  std::array<std::array<std::uint8_t, kept_bytes>, messages_per_call> bytes;
  std::array<std::array<std::uint8_t, control_bytes>, messages_per_call> control;
};

// Waits for the first message, unless `flags` say otherwise. How many were read; below 0 when none came. The kernel has
// changed the messages that it filled, and no others.
inline int read_messages(reader* from, int flags) {
  for (unsigned i = 0; i + from->unused < reader::messages_per_call; ++i) {
    from->parts[i] = {from->bytes[i].data(), reader::kept_bytes};
    msghdr& header = from->headers[i].msg_hdr;
    header = message_to(&from->sources[i], &from->parts[i]);
    header.msg_control = from->control[i].data();
    header.msg_controllen = reader::control_bytes;
  }
  const int got =
      recvmmsg(from->socket_fd, from->headers.data(), reader::messages_per_call, flags | MSG_WAITFORONE, nullptr);
  from->unused = reader::messages_per_call - static_cast<unsigned>(std::max(got, 0));
  return got;
}

inline std::span<const std::uint8_t> message_of(const reader& from, int index) {
  const auto place = static_cast<std::size_t>(index);
  return {from.bytes[place].data(), std::min<std::size_t>(from.headers[place].msg_len, reader::kept_bytes)};
}

inline volatile std::sig_atomic_t told_to_end = 0;

// Has SIGTERM end the program's waits, and tells whoever started it that it is ready.
inline void run_until_told() {
  struct sigaction ending = {};
  ending.sa_handler = [](int) { told_to_end = 1; };
  sigaction(SIGTERM, &ending, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);
}
