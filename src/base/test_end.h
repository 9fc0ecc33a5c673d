// Whether a test is over, and what ended it.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

enum class test_end : std::uint8_t {
  none,             // it goes on
  connection_gone,  // a commander's, which can get no other
  stopped,          // by a stop signal (base/signals.h)
  duration_over,    // it has lasted as long as it may (-S)
  all_done,         // all requests are sent, or all batches complete
};

// The one answer; a monitor is never all done. In echo mode requests may still await their answers.
[[nodiscard]] test_end end_of_test(const test_settings* settings, const run_state* run);

// True when it was ended from outside: what is under way then is dropped or settled, not finished.
[[nodiscard]] bool was_cut_short(const test_settings* settings, const run_state* run);

// True when every request of the test has been sent.
[[nodiscard]] bool all_is_sent(const test_settings* settings, const run_state* run);

// Notes in run->stop_requested when `now` (ticks) is past the duration that the test was given (settings->duration_sec,
// 0 = any).
void note_duration(const test_settings* settings, const test_stats* stats, std::int64_t now, run_state* run);

// What is left of the duration in usec, 0 when it is over; the largest number without one, and for a monitor that
// serves: it has replies to send after that time too.
[[nodiscard]] std::int64_t time_until_end(const test_settings* settings, const test_stats* stats);

// True when it is not worth waiting for room to send: the duration is over or a stop signal came.
[[nodiscard]] bool sending_is_over(const test_settings* settings, const test_stats* stats);
