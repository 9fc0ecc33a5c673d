// The one loop: release what is due, wait for frames, let the mode's progress step judge, until the test is over.
#pragma once

struct command_body;
struct run_state;
struct test_settings;
struct test_stats;

// Runs one test from start to end and returns 0. The records are the caller's: `run` holds the open socket, `stats` is
// zeroed here, `settings` gets its derived fields. `command` is read in command mode only. The packet table lives for
// the call. A monitor that reads returns only after a stop signal (base/signals.h). What cannot go on, such as a
// commander without a connection, ends the process through cleanup_exit(1).
int run_test(test_settings* settings, test_stats* stats, run_state* run, const command_body* command);

// Writes the destination, or the first and last host of a sweep, to standard error; nothing in a command run.
void print_host_range(const test_settings* settings);
