// Pacing: how many packets now, how long to wait. Arithmetic on the records, no I/O but the clock.
//
// How many is a matter of credit: elapsed time buys packets. When to look is a matter of schedule: a wait ends some 50
// usec late, and if each were counted from the end of the one before, the delays would add up until two packets went
// out together. So every release is due one delay after the one before was due.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

// How many packets the pacing releases now; 0 = none yet. Elapsed time is a credit: every release spends whole periods
// of settings->delay_usec (usec) and keeps the remainder in `run`, so rounding never adds up over a stream. The window,
// unless responses are ignored, and the requests left bound the result. Goes by the time of the step. Unless the result
// is 0 it sets run->next_tx_time, and what else the pacing keeps in `run`.
[[nodiscard]] std::uint32_t packets_due(const test_settings* settings, run_state* run);

// Gives the credit of `packets` back that were released and could not be sent, so that the mean rate holds. Of a first
// release nothing was spent as long as nothing of it was sent.
void return_credit(std::uint32_t packets, const test_settings* settings, run_state* run);

// How long, in usec, the test may wait for a frame before something is due: 0 to 2147483647. A monitor and a commander
// wait in slices of one second; echo mode, from the time of the step on, until the oldest request times out or the next
// one may go.
[[nodiscard]] std::int64_t time_until_next_event(const test_settings* settings, run_state* run);

// The same for a run that sends nothing more: usec until the oldest request times out.
[[nodiscard]] std::int64_t time_until_timeout(const test_settings* settings, const run_state* run);

// How long, in usec, until the next release is due: at most settings->delay_usec, not above 0 when it is.
[[nodiscard]] std::int64_t time_until_next_release(const test_settings* settings, const run_state* run);

// True when the next release is due at `now` (ticks), were there anything left to send.
[[nodiscard]] bool release_is_due(const run_state* run, std::int64_t now);
