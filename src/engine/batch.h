// A batch: one command and the stream of packets that answers it. What happens to its records, from the command to the
// verdict; how it is judged is report/batch_report's.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

// Begins the measuring of the batch whose command was just sent: the figures and the stream position of the last one
// go.
void open_batch(run_state* run, test_stats* stats);

// Marks a slot for each packet that the command asks for; they are numbered from 0.
void arm_batch(const test_settings* settings, const run_state* run);

// Notes that packet `sequence` (its low 16 bits) of the stream came from `source` (network byte order) at `time`
// (ticks).
void record_arrival(std::uint32_t sequence, std::uint32_t source, std::int64_t time, run_state* run, test_stats* stats);

// Ends the batch: one more is complete.
void close_batch(run_state* run);

// Has a bad batch repeated: the test asks for one more command, unless its counts hold no more.
void repeat_batch(test_settings* settings);
