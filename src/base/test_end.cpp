#include "base/test_end.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/signals.h"

// A connection that is gone has the last word: it is an error, however the test was also ended.
test_end end_of_test(const test_settings* settings, const run_state* run) {
  if (run->connection_is_gone != 0) return test_end::connection_gone;
  if (stop_signal() != 0) return test_end::stopped;
  if (run->stop_requested != 0) return test_end::duration_over;
  if (is_monitor(settings)) return test_end::none;
  const bool batches_are_complete = is_commander(settings) && run->batch >= settings->total_requests;
  return all_is_sent(settings, run) || batches_are_complete ? test_end::all_done : test_end::none;
}

bool was_cut_short(const test_settings* settings, const run_state* run) {
  const test_end end = end_of_test(settings, run);
  return end == test_end::connection_gone || end == test_end::stopped;
}

bool all_is_sent(const test_settings* settings, const run_state* run) {
  return run->current_tx__packet >= settings->total_requests;
}

void note_duration(const test_settings* settings, const test_stats* stats, std::int64_t now, run_state* run) {
  if (settings->duration_sec == 0) return;
  if (usec_between(stats->start_time, now) > settings->duration_sec * usec_per_second) run->stop_requested = 1;
}

// Read anew at each call, since a wait lies between.
std::int64_t time_until_end(const test_settings* settings, const test_stats* stats) {
  const bool serves_on = is_monitor(settings) && settings->ignore_responses == 0;
  if (settings->duration_sec == 0 || serves_on) return std::numeric_limits<std::int64_t>::max();
  const std::int64_t left = settings->duration_sec * usec_per_second - usec_between(stats->start_time, clock_now());
  return std::max<std::int64_t>(left, 0);
}

bool sending_is_over(const test_settings* settings, const test_stats* stats) {
  return stop_signal() != 0 || time_until_end(settings, stats) == 0;
}
