// The two tables on disk: one row per command-mode test in each.
#pragma once

#include <cstdio>

struct test_settings;
struct test_stats;

// Set by the command line (-f, -F), read here. The texts point into the argument vector; null when not given.
extern const char* results_filename;
extern const char* results_tag;
extern std::FILE* results_file;  // opened for appending by the command line, closed here
extern int results_file_is_new;  // 1 when the file did not exist before, so a header row goes first

// Opens a table for appending and creates it where it is missing; *is_new becomes 1 in that case, else 0. Never waits:
// a FIFO opens only when somebody reads it. Null when it cannot be opened.
[[nodiscard]] std::FILE* open_results_table(const char* name, int* is_new);

// Ends a command-mode test: prints the completion line on standard output and appends one row to the results file and
// one to its histogram file, each whole, with its header, in one write, or not at all. Without a results file only the
// line is printed. Whatever calls it again finds the work done.
void write_results_files(const test_settings* settings, const test_stats* stats);
