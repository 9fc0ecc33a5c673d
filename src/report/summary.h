// The end of an echo-mode test.
#pragma once

struct test_settings;
struct test_stats;

// Prints the summary on standard output: duration, counts and rates when more than one request was due; the smallest,
// largest and mean round trip when anything was received. Durations are taken from stats->start_time and end_time.
void print_test_summary(const test_settings* settings, const test_stats* stats);
