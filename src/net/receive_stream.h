// A packet of a stream, judged against the one before it; the handlers count and print what it says.
#pragma once

#include <cstdint>

struct frame_arrival;
struct run_state;
struct test_settings;
struct test_stats;

struct stream_packet {
  std::int64_t time;       // ticks; of its arrival
  std::int64_t gap_usec;   // since the packet before it; 0 for the first
  std::uint32_t sequence;  // 16 bits
  std::uint32_t skipped;   // its number less the one after the last, modulo 2^32; the low 16 bits are what was lost
  bool is_first;           // of its stream: there is nothing to judge it against
  bool in_sequence;        // its number is the one after the last, modulo 2^16
  bool late;               // its gap is above settings->timeout_usec
};

// Notes that packet `sequence` (its low 16 bits) of a batch's stream came from `source` (network byte order) at `time`
// (ticks).
void record_arrival(std::uint32_t sequence, std::uint32_t source, std::int64_t time, run_state* run, test_stats* stats);

// The packet with `sequence`, of which 16 bits count, that came at `arrival`.
[[nodiscard]] stream_packet judge_stream_packet(const test_settings* settings, const run_state* run,
                                                std::uint32_t sequence, const frame_arrival* arrival);
