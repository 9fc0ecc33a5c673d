// The socket of a run: open it and configure it.
#pragma once

struct run_state;
struct test_settings;

// Opens and configures the one socket that the settings ask for (udp(7), tcp(7), raw(7)): run->data_socket, for a TCP
// monitor run->listen_socket with data_socket -1. Does nothing when data_socket is not 0. A socket that cannot be had,
// bound, connected or listened on is fatal: one line on standard error, then cleanup_exit(1). A refused option prints a
// warning and the run goes on.
void open_test_socket(const test_settings* settings, run_state* run);
