// Time: ticks since the epoch, and their conversion to microseconds.
//
// The program's own clock starts at the date and then goes on by CLOCK_MONOTONIC. The date may be set while a test
// runs, by hand or by NTP, and a clock that jumps would falsify every figure and stall or flood every schedule; this
// one cannot. The kernel, however, stamps frames by the date (timestamping.rst in the kernel's documentation), so
// stamps are brought to our time by the lead of the one clock over the other, which stays the same until somebody sets
// the date.
#pragma once

#include <cstdint>
#include <ctime>

// Clock ticks per second. Written by every clock_now, read by ticks_to_usec; 0 until the first reading.
extern std::int64_t ticks_per_second;

inline constexpr std::int64_t usec_per_second = 1000000;

// The current time in ticks: the first reading is gettimeofday(2), every later one that plus what CLOCK_MONOTONIC
// (clock_gettime(2)) has gone on since. Never less than a reading before it.
[[nodiscard]] std::int64_t clock_now();

// One moment on both clocks.
struct clock_reading {
  std::int64_t now;             // ticks
  std::int64_t date_lead_nsec;  // what the date shows beyond CLOCK_MONOTONIC
};

// Reads both clocks. To be called behind the call that brought the stamps.
[[nodiscard]] clock_reading read_both_clocks();

// A stamp of the kernel, by the date, in ticks. 0 when it cannot be told: the date was set by more than 1 ms, and the
// stamp may be from before.
[[nodiscard]] std::int64_t stamp_to_ticks(const timespec* stamp, const clock_reading* reading);

// A difference of two clock readings, in ticks, as microseconds; truncates toward zero. No difference overflows.
[[nodiscard]] std::int64_t ticks_to_usec(std::int64_t ticks);

// Microseconds as a difference of two clock readings, in ticks.
[[nodiscard]] std::int64_t usec_to_ticks(std::int64_t usec);

// Microseconds from one clock reading to another, both in ticks; negative when the second is the earlier.
[[nodiscard]] std::int64_t usec_between(std::int64_t earlier, std::int64_t later);

// Microseconds as the int that "%d" prints; more than it holds becomes the largest.
[[nodiscard]] int usec_as_int(std::int64_t usec);

// Microseconds as seconds, for printing.
[[nodiscard]] double usec_to_seconds(std::int64_t usec);
