// What a run has come to, so far and at its end.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

// The running average of an echo test. Prints the rate at which the last settings->average_window reported requests
// were answered, request and answer both counted, and the counters of the test so far; nothing in a command run. The
// window is at most the packet table.
void print_running_bitrate(const test_settings* settings, const run_state* run, const test_stats* stats);

// How far a run is, for whoever asks with SIGQUIT. Prints one line on standard error: packets sent, received and lost
// so far. In command mode the packets are those of the streams whose batches are closed.
void print_progress(const test_settings* settings, const run_state* run, const test_stats* stats);

// The end of an echo-mode test. Prints the summary on standard output: duration, counts and rates when more than one
// request was due; the smallest, largest and mean round trip when anything was received. Durations are taken from
// stats->start_time and end_time.
void print_test_summary(const test_settings* settings, const test_stats* stats);

// What this host itself lost during a run.
struct host_losses {
  std::uint64_t dropped_datagrams;  // that its receive buffer had no room for
  std::uint64_t buffer_bytes;       // of that buffer
  std::uint64_t discarded_packets;  // outgoing, given up above all for a full interface queue
};

// Says so on standard error, so that nobody takes it for the network's loss. Nothing of what is 0.
void print_host_losses(const host_losses* losses);
