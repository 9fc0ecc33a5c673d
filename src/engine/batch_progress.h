// Command mode, step by step: a batch, that is one command and the stream of packets that answers it, is armed, opened,
// closed, and repeated when it was bad. How a batch is judged is report/batch_judgement's.
#pragma once

#include "base/run_records.h"

struct test_settings;

// Marks a slot for each packet that the next command asks for; they are numbered from 0.
void arm_batch(const test_settings* settings, const run_state* run);

// Begins the measuring of the batch whose command was just sent: the figures and the stream position of the last one
// go.
void open_batch(run_state* run, test_stats* stats);

// After every wait. `status` is what receive_one_frame returned: frame_none (silence) and frame_ends_batch close the
// batch, which is then judged and printed; what is still queued after a silence is thrown away. A batch whose first or
// last packet is missing is a bad sample: it adds one command to the test and nothing to the distributions. Returns 1
// while the batch goes on; 0 when it or the test is over.
[[nodiscard]] int batch_report(test_settings* settings, run_state* run, test_stats* stats, frame_result status);
