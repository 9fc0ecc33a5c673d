// The signals a run answers to: SIGINT, SIGTERM and SIGHUP ask it to end, SIGQUIT asks how far it is.
//
// The handlers only take a note and make `signal_descriptor` readable, so a wait that watches it cannot miss a signal
// that came just before it. What a signal means for a test is decided where the test runs.
#pragma once

// Catches the three stop signals, each only if it was not ignored at start, and SIGQUIT when `progress_on_quit` is
// true. Notes begin anew. The first stop signal is noted; from then on those caught have their default action, so a
// second one ends the process at once.
void catch_signals(bool progress_on_quit);

// The stop signal that came, or 0.
[[nodiscard]] int stop_signal();

// True once after each SIGQUIT.
[[nodiscard]] bool take_progress_request();

// A descriptor that becomes readable when a caught signal comes; -1 while none is there.
[[nodiscard]] int signal_descriptor();

// Makes `signal_descriptor` unreadable again. The notes stay.
void drain_signal_descriptor();

// Ends the process by the stop signal that came, as if it had never been caught, so that shells and service managers
// see what happened. Returns when none came.
void end_by_stop_signal();
