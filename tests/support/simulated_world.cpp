#include "support/simulated_world.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <ctime>

simulated_world world;

namespace {

constexpr int readings_in_a_usec = 1000;  // a program that does nothing but look at the clock still takes time

timeval as_timeval(std::int64_t usec) {
  return {.tv_sec = static_cast<time_t>(usec / 1000000), .tv_usec = static_cast<suseconds_t>(usec % 1000000)};
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

extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  if (++world.readings % readings_in_a_usec == 0) ++world.now;
  *now = as_timeval(world.now);
  return 0;
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
    const std::int64_t usec = left->tv_sec * 1000000 + left->tv_usec;
    const int ready = pselect(count, readable, writable, nullptr, &at_once, nullptr);
    if (ready != 0 || usec == 0) return ready;
    if (readable != nullptr) *readable = asked_readable;
    if (writable != nullptr) *writable = asked_writable;
    *left = as_timeval(pass_time(usec));
  }
}

extern "C" ssize_t sendto(int /*socket*/, const void* bytes, size_t length, int /*flags*/, const sockaddr* /*to*/,
                          socklen_t /*to_length*/) {
  ++world.sent;
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  if (world.on_send) world.on_send({first, first + length});
  return static_cast<ssize_t>(length);
}
