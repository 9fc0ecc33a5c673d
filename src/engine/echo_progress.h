// Echo mode after every wait: report what is settled, time out what is too old, decide whether to go on waiting.
#pragma once

struct run_state;
struct test_settings;
struct test_stats;

// Reports every settled request exactly once and strictly in sequence order, from the report cursor
// run->oldest_outstanding upward, and settles those older than settings->timeout_usec as lost. Returns 0 when the loop
// should leave its receive phase, because the next packet is due or all is sent and reported; else 1.
[[nodiscard]] int echo_progress(const test_settings* settings, run_state* run, test_stats* stats);
