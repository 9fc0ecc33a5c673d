// The order of start-up and end.
#pragma once

// Prints the banner, parses the command line, opens the socket, runs the one test of this process and returns its exit
// status: 0 when it ran to its end. A rejected command line prints the usage text and ends in cleanup_exit(1).
[[nodiscard]] int run_program(int argc, char** argv);
