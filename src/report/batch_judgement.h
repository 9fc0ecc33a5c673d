// What a batch was worth: its rate, its losses, how evenly it came, and whether it may count.
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

// Sets stats->buffer_consumption_usec (usec) to the spread between the earliest and the latest arrival of the batch,
// each against its schedule: the depth of the playout buffer that the stream would have needed. The schedule is the
// commanded delay, or the mean spacing where that is below 1 ms; a missing packet starts it anew. 0 when nothing
// arrived; unchanged when a single packet did.
void compute_buffer_consumption(const run_state* run, test_stats* stats, const test_settings* settings);

// The judgement of the batch that the records describe.
[[nodiscard]] batch_judgement judge_batch(const test_settings* settings, const run_state* run, const test_stats* stats);

// Adds it to the counts of the test and, when it is good, its rate and the buffer consumption that was computed of it
// to the distributions.
void count_batch(const batch_judgement* batch, test_stats* stats);
