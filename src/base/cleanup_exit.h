// The one door out of the process.
#pragma once

// Writes "Cleanup exit\n" to standard error, behind everything printed before, and ends the process: by the stop signal
// that came, if one did, else with `status`. Fatal errors print their one line and call it with 1.
[[noreturn]] void cleanup_exit(int status);

// Has `action` called by cleanup_exit before anything else: what must not be left behind. One at most.
void call_at_exit(void (*action)());
