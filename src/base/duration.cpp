#include "base/duration.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/signals.h"

bool duration_is_over(const test_settings* settings, const test_stats* stats, std::int64_t now) {
  if (settings->duration_sec == 0) return false;
  return usec_between(stats->start_time, now) > settings->duration_sec * usec_per_second;
}

// Read anew at each call, since a wait lies between.
std::int64_t time_until_end(const test_settings* settings, const test_stats* stats) {
  const bool serves_on = is_monitor(settings) && settings->ignore_responses == 0;
  if (settings->duration_sec == 0 || serves_on) return std::numeric_limits<std::int64_t>::max();
  const std::int64_t left = settings->duration_sec * usec_per_second - usec_between(stats->start_time, clock_now());
  return std::max<std::int64_t>(left, 0);
}

bool test_was_ended(const test_settings* settings, const test_stats* stats) {
  return stop_signal() != 0 || time_until_end(settings, stats) == 0;
}
