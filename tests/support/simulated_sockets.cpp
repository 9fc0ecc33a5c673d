// Sockets are pairs within this process; what is sent as a datagram goes to the test.
// clang-format off
#include <ctime>
#include <linux/errqueue.h>  // takes struct timespec from the one before
// clang-format on

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "support/simulated_world.h"

namespace {

bool fails(call which) {
  errno = world.meets ? world.meets(which) : 0;
  return errno != 0;
}

ssize_t send_really(int socket, const void* bytes, std::size_t length) {
  return syscall(SYS_sendto, socket, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
}

byte_vector gathered(const msghdr* message) {
  byte_vector bytes;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    const auto* part = static_cast<const std::uint8_t*>(message->msg_iov[i].iov_base);
    bytes.insert(bytes.end(), part, part + message->msg_iov[i].iov_len);
  }
  return bytes;
}

void take(const void* bytes, std::size_t length) {
  ++world.sent;
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  if (world.on_send) world.on_send({first, first + length});  // copied for a test that looks: a stream may be 4 GB
}

template <typename content>
void write_control(cmsghdr* part, int level, int type, const content& value) {
  *part = {.cmsg_len = CMSG_LEN(sizeof value), .cmsg_level = level, .cmsg_type = type};
  std::memcpy(CMSG_DATA(part), &value, sizeof value);
}

// A read that waits, for 10 ms and the rest of the kernel's tick at most.
bool comes_in_time(int socket) {
  timeval left = {.tv_sec = 0, .tv_usec = 13000};
  fd_set readable = {};
  FD_SET(socket, &readable);
  const int ready = select(socket + 1, &readable, nullptr, nullptr, &left);
  if (ready == 0) errno = EAGAIN;
  return ready > 0;
}

// As the kernel does, which stamps what it received by the date.
void complete(msghdr* message) {
  static_cast<sockaddr_in*>(message->msg_name)->sin_addr.s_addr = inet_addr("10.0.0.7");
  if (world.arrival_age == 0) return;
  message->msg_controllen = CMSG_SPACE(sizeof(timespec));
  const timespec stamp = as_timespec(world.now + world.set_by - world.arrival_age);
  write_control(CMSG_FIRSTHDR(message), SOL_SOCKET, SO_TIMESTAMPNS, stamp);
}

}  // namespace

int simulated_world::open(int socket_type) {
  int ends[2];
  if (socketpair(AF_UNIX, socket_type == SOCK_RAW ? SOCK_DGRAM : socket_type, 0, ends) != 0) return -1;
  own = ends[0];
  peer = ends[1];
  type = socket_type;
  return own;
}

void simulated_world::deliver(std::int64_t usec, const byte_vector& bytes) {
  after(usec, [bytes] { send_really(world.peer, bytes.data(), bytes.size()); });
}

void simulated_world::fill() const {
  const byte_vector block(16384);
  while (send_really(own, block.data(), block.size()) > 0) {
  }
}

std::size_t simulated_world::drain(byte_vector* bytes) const {
  static std::array<std::uint8_t, 65536> piece;
  std::size_t total = 0;
  for (ssize_t got = 0; (got = recv(peer, piece.data(), piece.size(), MSG_DONTWAIT)) > 0;) {
    total += static_cast<std::size_t>(got);
    if (bytes != nullptr) bytes->insert(bytes->end(), piece.begin(), piece.begin() + got);
  }
  return total;
}

extern "C" {

int socket(int /*domain*/, int type, int /*protocol*/) noexcept {
  return fails(call::socket) ? -1 : world.open(type & ~SOCK_CLOEXEC);
}

int setsockopt(int /*socket*/, int /*level*/, int /*option*/, const void* /*value*/, socklen_t /*length*/) noexcept {
  return fails(call::setsockopt) ? -1 : 0;
}

int connect(int /*socket*/, const sockaddr* /*to*/, socklen_t /*length*/) {
  return fails(call::connect) ? -1 : 0;
}

int bind(int /*socket*/, const sockaddr* /*address*/, socklen_t /*length*/) noexcept {
  return fails(call::bind) ? -1 : 0;
}

int listen(int /*socket*/, int /*backlog*/) noexcept {
  send_really(world.peer, "", 1);  // somebody always connects
  return fails(call::listen) ? -1 : 0;
}

int accept4(int /*socket*/, sockaddr* /*from*/, socklen_t* /*length*/, int /*flags*/) {
  return fails(call::accept4) ? -1 : world.open(SOCK_STREAM);
}

ssize_t send(int socket, const void* bytes, size_t length, int /*flags*/) {
  if (fails(call::send)) return -1;
  ++world.send_calls;
  const std::size_t taken = world.sends_half ? (length + 1) / 2 : length;
  take(bytes, length);
  return world.on_send ? static_cast<ssize_t>(taken) : send_really(socket, bytes, taken);
}

ssize_t sendto(int /*socket*/, const void* bytes, size_t length, int /*flags*/, const sockaddr* /*to*/,
               socklen_t /*to_length*/) {
  if (fails(call::sendto)) return -1;
  ++world.send_calls;
  take(bytes, length);
  return static_cast<ssize_t>(length);
}

// Datagrams side by side, as UDP_SEGMENT cuts them (udp(7)).
ssize_t sendmsg(int /*socket*/, const msghdr* message, int /*flags*/) {
  if (fails(call::sendmsg)) return -1;
  ++world.send_calls;
  std::uint16_t segment_bytes = 0;
  std::memcpy(&segment_bytes, CMSG_DATA(CMSG_FIRSTHDR(message)), sizeof segment_bytes);
  const byte_vector bytes = gathered(message);
  for (std::size_t at = 0; at < bytes.size(); at += segment_bytes) take(&bytes[at], segment_bytes);
  return static_cast<ssize_t>(bytes.size());
}

int sendmmsg(int /*socket*/, mmsghdr* messages, unsigned int count, int /*flags*/) {
  int taken = 0;
  for (; taken < static_cast<int>(count) && !fails(call::sendmmsg); ++taken) {
    const byte_vector bytes = world.on_send ? gathered(&messages[taken].msg_hdr) : byte_vector();
    take(bytes.data(), bytes.size());
  }
  world.send_calls += taken != 0 ? 1 : 0;
  return taken != 0 ? taken : -1;
}

int recvmmsg(int socket, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
  if (fails(call::recvmmsg)) return -1;
  if ((flags & MSG_DONTWAIT) == 0 && !comes_in_time(socket)) return -1;
  const auto got = static_cast<int>(syscall(SYS_recvmmsg, socket, messages, count, flags | MSG_DONTWAIT, timeout));
  for (int i = 0; i < got; ++i) complete(&messages[i].msg_hdr);
  return got;
}

// Of the error queue alone: a stamp and the number of the datagram that it belongs to.
ssize_t recvmsg(int /*socket*/, msghdr* message, int flags) {
  errno = EAGAIN;
  if ((flags & MSG_ERRQUEUE) == 0 || world.send_stamps.empty()) return -1;
  const auto [number, date] = world.send_stamps.front();
  world.send_stamps.pop_front();
  sock_extended_err origin = {};
  origin.ee_origin = SO_EE_ORIGIN_TIMESTAMPING;
  origin.ee_data = number;
  message->msg_controllen = CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof origin);
  cmsghdr* part = CMSG_FIRSTHDR(message);
  write_control(part, SOL_SOCKET, SO_TIMESTAMPNS, as_timespec(date));
  write_control(CMSG_NXTHDR(message, part), IPPROTO_IP, IP_RECVERR, origin);
  return 0;
}

}  // extern "C"
