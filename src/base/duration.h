// How long a test may last (-S).
#pragma once

#include <cstdint>

struct test_settings;
struct test_stats;

// True when `now` (ticks) is past the duration that the test was given; never without one.
[[nodiscard]] bool duration_is_over(const test_settings* settings, const test_stats* stats, std::int64_t now);

// What is left of the duration in usec, 0 when it is over; the largest number without one, and for a monitor that
// serves: it has replies to send after that time too.
[[nodiscard]] std::int64_t time_until_end(const test_settings* settings, const test_stats* stats);

// True when nothing more is to be sent: the duration is over or a stop signal came.
[[nodiscard]] bool test_was_ended(const test_settings* settings, const test_stats* stats);
