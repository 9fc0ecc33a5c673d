// The running average of an echo test.
#pragma once

struct run_state;
struct test_settings;
struct test_stats;

// Prints the rate at which the last settings->average_window reported requests were answered, request and answer both
// counted, and the counters of the test so far; nothing in a command run. The window is at most the packet table.
void print_running_bitrate(const test_settings* settings, const run_state* run, const test_stats* stats);
