// What a batch was worth: its rate, its losses, and whether it may count.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

struct batch_judgement {
  std::int64_t span_usec;  // from the first to the last arrival; the nominal length when that has no measure
  std::int32_t rate_kbps;  // receive rate, 0 without a measurable span
  std::int32_t lost;       // packets asked for less packets received
  bool bad;                // its first or its last packet did not arrive
};

// The judgement of the batch that the records describe.
[[nodiscard]] batch_judgement judge_batch(const test_settings* settings, const run_state* run, const test_stats* stats);

// Adds it to the counts of the test and, when it is good, its rate and its buffer consumption to the distributions.
void count_batch(const batch_judgement* batch, test_stats* stats);
