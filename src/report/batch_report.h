// Command mode after every wait: close a batch when its stream is over, judge it, and say whether to go on.
#pragma once

struct run_state;
struct test_settings;
struct test_stats;

// `status` is what receive_one_frame returned: 0 (silence) and 2 (the last packet came) close the batch. A batch whose
// first or last packet is missing is a bad sample: it adds one command to the test and nothing to the distributions.
// Returns 1 while the batch goes on; 0 when it or the test is over, and then, at the end of the test, the results files
// are written.
[[nodiscard]] int batch_report(test_settings* settings, run_state* run, test_stats* stats, int status);
