#include "support/simulated_world.h"

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <ctime>

simulated_world world;

namespace {

constexpr std::int64_t usec_in_a_second = 1000000;
constexpr int readings_in_a_usec = 1000;  // a program that does nothing but look at the clock still takes time

// Lets time pass up to the next event or by `usec`, whichever is sooner. Returns what is left of `usec`.
std::int64_t pass_time(std::int64_t usec) {
  const auto next = world.events.begin();
  if (next == world.events.end() || next->first > world.now + usec) {
    world.now += usec;
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

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  if (++world.readings % readings_in_a_usec == 0) ++world.now;
  *now = {.tv_sec = static_cast<time_t>(world.now / usec_in_a_second),
          .tv_usec = static_cast<suseconds_t>(world.now % usec_in_a_second)};
  return 0;
}

extern "C" time_t time(time_t* result) noexcept {
  const auto seconds = static_cast<time_t>(world.now / usec_in_a_second);
  if (result != nullptr) *result = seconds;
  return seconds;
}

extern "C" int sched_yield() noexcept {
  ++world.now;  // a run that never sleeps still takes time
  return 0;
}

// As select(2) on Linux: *left is what was not slept.
extern "C" int select(int count, fd_set* readable, fd_set* writable, fd_set* /*failed*/, timeval* left) {
  const fd_set asked_readable = readable != nullptr ? *readable : fd_set{};
  const fd_set asked_writable = writable != nullptr ? *writable : fd_set{};
  const timespec at_once = {};
  for (;;) {
    const std::int64_t usec = left->tv_sec * usec_in_a_second + left->tv_usec;
    const int ready = pselect(count, readable, writable, nullptr, &at_once, nullptr);
    if (ready != 0 || usec == 0) return ready;
    if (readable != nullptr) *readable = asked_readable;
    if (writable != nullptr) *writable = asked_writable;
    const std::int64_t rest = pass_time(usec);
    *left = {.tv_sec = static_cast<time_t>(rest / usec_in_a_second),
             .tv_usec = static_cast<suseconds_t>(rest % usec_in_a_second)};
  }
}

extern "C" ssize_t sendto(int /*socket*/, const void* bytes, size_t length, int /*flags*/, const sockaddr* to,
                          socklen_t /*to_length*/) {
  if (world.keeps_nothing) return static_cast<ssize_t>(length);
  sockaddr_in address = {};
  std::memcpy(&address, to, sizeof address);
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  sent_datagram datagram = {{first, first + length}, address.sin_addr.s_addr, address.sin_port};
  if (world.on_send) {
    world.on_send(datagram);
  } else {
    world.sent.push_back(std::move(datagram));
  }
  return world.send_result.value_or(static_cast<ssize_t>(length));
}
