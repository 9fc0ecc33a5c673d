// Time: ticks since the epoch, and their conversion to microseconds.
#pragma once

#include <cstdint>

struct timeval;

// Clock ticks per second. Written by every clock_now, read by ticks_to_usec; 0 until the first reading.
extern std::int64_t ticks_per_second;

inline constexpr std::int64_t usec_per_second = 1000000;

// The current time in ticks, from gettimeofday(2): wall-clock time, which may be set back or forward.
[[nodiscard]] std::int64_t clock_now();

// A time of that clock, as the kernel writes it, in ticks.
[[nodiscard]] std::int64_t timeval_to_ticks(const timeval* time);

// A difference of two clock readings, in ticks, as microseconds; truncates toward zero. No difference overflows.
[[nodiscard]] std::int64_t ticks_to_usec(std::int64_t ticks);

// Microseconds as a difference of two clock readings, in ticks.
[[nodiscard]] std::int64_t usec_to_ticks(std::int64_t usec);

// Microseconds from one clock reading to a later one, both in ticks; 0 when the clock was set back in between.
[[nodiscard]] std::int64_t usec_between(std::int64_t earlier, std::int64_t later);

// Microseconds as the int that "%d" prints; more than it holds becomes the largest.
[[nodiscard]] int usec_as_int(std::int64_t usec);

// Microseconds as seconds, for printing.
[[nodiscard]] double usec_to_seconds(std::int64_t usec);
