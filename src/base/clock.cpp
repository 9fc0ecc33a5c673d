#include "base/clock.h"

#include <sys/time.h>

#include <algorithm>
#include <limits>

std::int64_t ticks_per_second = 0;

std::int64_t clock_now() {
  ticks_per_second = usec_per_second;
  timeval now = {};
  gettimeofday(&now, nullptr);
  return timeval_to_ticks(&now);
}

std::int64_t timeval_to_ticks(const timeval* time) {
  return static_cast<std::int64_t>(time->tv_sec) * usec_per_second + static_cast<std::int64_t>(time->tv_usec);
}

// Whole seconds and the rest apart: a device that boots in 1970 and then learns the date steps by more ticks than can
// be multiplied by a million.
std::int64_t ticks_to_usec(std::int64_t ticks) {
  const std::int64_t seconds = ticks / ticks_per_second;
  return seconds * usec_per_second + (ticks % ticks_per_second) * usec_per_second / ticks_per_second;
}

std::int64_t usec_to_ticks(std::int64_t usec) {
  return usec / usec_per_second * ticks_per_second + usec % usec_per_second * ticks_per_second / usec_per_second;
}

std::int64_t usec_between(std::int64_t earlier, std::int64_t later) {
  return std::max<std::int64_t>(ticks_to_usec(later - earlier), 0);
}

int usec_as_int(std::int64_t usec) {
  return static_cast<int>(std::min<std::int64_t>(usec, std::numeric_limits<int>::max()));
}

double usec_to_seconds(std::int64_t usec) {
  return static_cast<double>(usec) / static_cast<double>(usec_per_second);
}
