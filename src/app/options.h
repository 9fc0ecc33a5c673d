// The command line: arguments to settings.
#pragma once

struct test_settings;

// Fills `settings` from the arguments, in their order, and sets the results-file variables (report/results_files.h).
// Resolves host names, opens the file of -f, detaches the process at -M. Returns 0 when the run may start and 1 when
// the arguments were rejected; every rejection but that of an unknown letter has printed its message on standard error.
[[nodiscard]] int parse_command_line(int argc, char** argv, test_settings* settings);
