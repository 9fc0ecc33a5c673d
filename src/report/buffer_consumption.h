// How far the arrivals of a batch strayed from an even schedule.
#pragma once

struct run_state;
struct test_settings;
struct test_stats;

// Sets stats->buffer_consumption_usec (usec) to the spread between the earliest and the latest arrival of the batch,
// each against its schedule: the depth of the playout buffer that the stream would have needed. The schedule is the
// commanded delay, or the mean spacing where that is below 1 ms; a missing packet starts it anew. 0 when nothing
// arrived; unchanged when a single packet did.
void compute_buffer_consumption(const run_state* run, test_stats* stats, const test_settings* settings);
