#include "support/simulated_world.h"

// clang-format off: the second takes struct timespec from the first
#include <linux/errqueue.h>

#include <ctime>
// clang-format on

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

simulated_world world;

namespace {

constexpr int readings_in_a_usec = 1000;  // a program that does nothing but look at the clock still takes time

timeval as_timeval(std::int64_t usec) {
  return {.tv_sec = static_cast<time_t>(usec / 1000000), .tv_usec = static_cast<suseconds_t>(usec % 1000000)};
}

timespec as_timespec(std::int64_t usec) {
  return {.tv_sec = static_cast<time_t>(usec / 1000000), .tv_nsec = static_cast<long>(usec % 1000000 * 1000)};
}

// Lets time pass up to the next event or by `usec`, whichever is sooner. Returns what is left of `usec`.
std::int64_t pass_time(std::int64_t usec) {
  const auto next = world.events.begin();
  if (next == world.events.end() || next->first > world.now + usec) {
    world.now += usec + world.overshoot;
    return 0;
  }
  const std::int64_t passed = std::max<std::int64_t>(next->first - world.now, 0);
  world.now += passed;
  const auto event = std::move(next->second);
  world.events.erase(next);
  event();
  return usec - passed;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (++world.readings % readings_in_a_usec == 0) ++world.now;
  *now = as_timespec(world.now + (clock == CLOCK_REALTIME ? world.set_by : 0));
  return 0;
}

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  timespec date = {};
  clock_gettime(CLOCK_REALTIME, &date);
  *now = {.tv_sec = date.tv_sec, .tv_usec = date.tv_nsec / 1000};
  return 0;
}

extern "C" int sched_yield() noexcept {
  ++world.now;  // a run that never sleeps still takes time
  if (world.on_yield) world.on_yield();
  return 0;
}

// As select(2) on Linux: *left is what was not slept.
extern "C" int select(int count, fd_set* readable, fd_set* writable, fd_set* /*failed*/, timeval* left) {
  const fd_set asked_readable = readable != nullptr ? *readable : fd_set{};
  const fd_set asked_writable = writable != nullptr ? *writable : fd_set{};
  const timespec at_once = {};
  for (;;) {
    const std::int64_t usec = left->tv_sec * 1000000 + left->tv_usec;
    const int ready = pselect(count, readable, writable, nullptr, &at_once, nullptr);
    if (ready != 0 || usec == 0) return ready;
    if (readable != nullptr) *readable = asked_readable;
    if (writable != nullptr) *writable = asked_writable;
    *left = as_timeval(pass_time(usec));
    if (std::exchange(world.interrupted, false)) {
      errno = EINTR;
      return -1;
    }
  }
}

namespace {

bool send_fails(bool side_by_side) {
  errno = world.send_error ? world.send_error(side_by_side) : 0;
  return errno != 0;
}

std::vector<std::uint8_t> gathered(const msghdr* message) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
    const auto* part = static_cast<const std::uint8_t*>(message->msg_iov[i].iov_base);
    bytes.insert(bytes.end(), part, part + message->msg_iov[i].iov_len);
  }
  return bytes;
}

// The bytes are gathered only for a test that looks at them: a command's stream may be 4 GB.
void take_datagram(const msghdr* message) {
  ++world.sent;
  if (world.on_send) world.on_send(gathered(message));
}

}  // namespace

extern "C" ssize_t sendto(int /*socket*/, const void* bytes, size_t length, int /*flags*/, const sockaddr* /*to*/,
                          socklen_t /*to_length*/) {
  if (send_fails(false)) return -1;
  ++world.send_calls;
  iovec whole = {.iov_base = const_cast<void*>(bytes), .iov_len = length};
  msghdr message = {};
  message.msg_iov = &whole;
  message.msg_iovlen = 1;
  take_datagram(&message);
  return static_cast<ssize_t>(length);
}

// Of the error queue alone: a stamp and the number of the datagram that it belongs to.
extern "C" ssize_t recvmsg(int /*socket*/, msghdr* message, int flags) {
  errno = EAGAIN;
  if ((flags & MSG_ERRQUEUE) == 0 || world.send_stamps.empty()) return -1;
  const auto [number, date] = world.send_stamps.front();
  world.send_stamps.pop_front();
  const timespec stamp = as_timespec(date);
  sock_extended_err origin = {};
  origin.ee_origin = SO_EE_ORIGIN_TIMESTAMPING;
  origin.ee_data = number;
  message->msg_controllen = CMSG_SPACE(sizeof stamp) + CMSG_SPACE(sizeof origin);
  cmsghdr* part = CMSG_FIRSTHDR(message);
  *part = {.cmsg_len = CMSG_LEN(sizeof stamp), .cmsg_level = SOL_SOCKET, .cmsg_type = SO_TIMESTAMPNS};
  std::memcpy(CMSG_DATA(part), &stamp, sizeof stamp);
  part = CMSG_NXTHDR(message, part);
  *part = {.cmsg_len = CMSG_LEN(sizeof origin), .cmsg_level = IPPROTO_IP, .cmsg_type = IP_RECVERR};
  std::memcpy(CMSG_DATA(part), &origin, sizeof origin);
  return 0;
}

// Weak: a program that fakes all of its sockets has one of its own.
extern "C" __attribute__((weak)) int accept4(int socket, sockaddr* /*from*/, socklen_t* /*length*/, int /*flags*/) {
  if (world.accept_errors.empty()) return dup(socket);
  errno = world.accept_errors.back();
  world.accept_errors.pop_back();
  return -1;
}

// Datagrams side by side, as UDP_SEGMENT cuts them (udp(7)).
extern "C" ssize_t sendmsg(int /*socket*/, const msghdr* message, int /*flags*/) {
  if (send_fails(true)) return -1;
  ++world.send_calls;
  std::uint16_t segment_bytes = 0;
  std::memcpy(&segment_bytes, CMSG_DATA(CMSG_FIRSTHDR(message)), sizeof segment_bytes);
  const std::vector<std::uint8_t> bytes = gathered(message);
  for (auto at = bytes.begin(); at < bytes.end(); at += segment_bytes) {
    ++world.sent;
    if (world.on_send) world.on_send({at, at + segment_bytes});
  }
  return static_cast<ssize_t>(bytes.size());
}

extern "C" int sendmmsg(int /*socket*/, mmsghdr* messages, unsigned int count, int /*flags*/) {
  unsigned int taken = 0;
  while (taken < count && !send_fails(false)) take_datagram(&messages[taken++].msg_hdr);
  world.send_calls += taken != 0 ? 1 : 0;
  return taken != 0 ? static_cast<int>(taken) : -1;
}
