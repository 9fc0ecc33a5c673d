// The two tables that a command-mode test leaves: which columns, and what stands in them.
#pragma once

#include <cstdio>

struct test_settings;
struct test_stats;

// Set by the command line (-f, -F), read here. The texts point into the argument vector; null when not given.
extern const char* results_filename;
extern const char* results_tag;
extern std::FILE* results_file;  // opened for appending by the command line, closed here
extern int results_file_is_new;  // 1 when the file did not exist before, so a header row goes first

// Ends a command-mode test: prints the completion line on standard output and appends one row to the results file and
// one to its histogram file, each whole, with its header, in one write, or not at all. Without a results file only the
// line is printed. Called once a run; it closes the files.
void write_results_files(const test_settings* settings, const test_stats* stats);

// Closes the results file of a command-mode test that ends without a row. When this run made it, it goes again.
void close_unused_results_file();
