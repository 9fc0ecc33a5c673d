// The line of one judged batch: graph, figures, percentile columns.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

// What batch_report found out about a batch.
struct batch_judgement {
  std::int64_t span_usec;  // from the first to the last arrival; the nominal length when that has no measure
  std::int32_t rate_kbps;  // receive rate, 0 without a measurable span
  std::int32_t lost;       // packets asked for less packets received
  bool bad;                // its first or its last packet did not arrive
};

// Prints the line of the batch that was just closed on standard output, with a row of column labels before every
// fiftieth. Quiet runs print the figures of the last batch only, of the others the line end.
void print_batch_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      const batch_judgement* batch);
