// The line of one judged batch: graph, figures, percentile columns.
#pragma once

struct batch_judgement;
struct run_state;
struct test_settings;
struct test_stats;

// Prints the line of the batch that was just closed on standard output, with a row of column labels before every
// fiftieth. Quiet runs print the figures of the last batch only, of the others the line end.
void print_batch_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      const batch_judgement* batch);
