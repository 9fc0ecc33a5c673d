#include "engine/batch_progress.h"

#include <cstdint>
#include <limits>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "net/receive_frame.h"
#include "report/batch_judgement.h"
#include "report/batch_line.h"

namespace {

// A count that wrapped to 0 would end the test, or divide by it.
void add_one_saturating(std::uint32_t* count) {
  if (*count != std::numeric_limits<std::uint32_t>::max()) ++*count;
}

void repeat_batch(test_settings* settings) {
  add_one_saturating(&settings->total_requests);
  add_one_saturating(&settings->echo_count);
}

void close_batch(test_settings* settings, run_state* run, test_stats* stats) {
  ++run->batch;
  compute_buffer_consumption(run, stats, settings);
  const batch_judgement batch = judge_batch(settings, run, stats);
  count_batch(&batch, stats);
  print_batch_line(settings, run, stats, &batch);
  if (batch.bad) repeat_batch(settings);
}

}  // namespace

// Slots of another batch would let its packets stand for those that did not come.
void arm_batch(const test_settings* settings, const run_state* run) {
  const std::int64_t now = clock_now();
  for (std::uint32_t sequence = 0; sequence < settings->remote_echoes; ++sequence) {
    arm_slot(settings, run, sequence, now);
  }
}

void open_batch(run_state* run, test_stats* stats) {
  stats->rx_packets = 0;
  stats->latency_min = 0;
  stats->latency_max = 0;
  stats->latency_sum = 0;
  stats->late_arrivals = 0;
  stats->batch_first_seq = -1;
  stats->batch_last_seq = -1;
  run->oldest_outstanding = 0;
  run->last_rx_seq = 0;
  run->current_tx__packet = 0;
  run->last_rx_time = 0;
}

int batch_report(test_settings* settings, run_state* run, test_stats* stats, frame_result status) {
  const bool batch_is_over = status == frame_none || status == frame_ends_batch;
  if (status == frame_none) flush_pending_frames(run->data_socket);
  if (batch_is_over) close_batch(settings, run, stats);
  run->step_time = 0;
  // Not for its number: a stray packet may have moved that, and the next right one moves it back.
  const test_end end = end_of_test(settings, run);
  return batch_is_over || (end != test_end::none && end != test_end::all_done) ? 0 : 1;
}
