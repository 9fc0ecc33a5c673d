// How far a run is, for whoever asks with SIGQUIT.
#pragma once

struct run_state;
struct test_settings;
struct test_stats;

// Prints one line on standard error: packets sent, received and lost so far. In command mode the packets are those of
// the streams whose batches are closed.
void print_progress(const test_settings* settings, const run_state* run, const test_stats* stats);
