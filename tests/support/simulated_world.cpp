#include "support/simulated_world.h"

#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>

simulated_world world;

namespace {

constexpr int readings_in_a_usec = 1000;  // a program that does nothing but look at the clock still takes time

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
  TIMESPEC_TO_TIMEVAL(now, &date);
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
    const timespec rest = as_timespec(pass_time(usec));
    TIMESPEC_TO_TIMEVAL(left, &rest);
    if (std::exchange(world.interrupted, false)) {
      errno = EINTR;
      return -1;
    }
  }
}
