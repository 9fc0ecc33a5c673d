// Command mode after every wait: judge a batch when its stream is over, and say whether to go on.
#pragma once

#include "base/frame_result.h"

struct run_state;
struct test_settings;
struct test_stats;

// `status` is what receive_one_frame returned: frame_none (silence) and frame_ends_batch close the batch, which is then
// judged and printed. A batch whose first or last packet is missing is a bad sample: it adds one command to the test
// and nothing to the distributions. Returns 1 while the batch goes on; 0 when it or the test is over.
[[nodiscard]] int batch_report(test_settings* settings, run_state* run, test_stats* stats, frame_result status);
