#include "engine/batch.h"

#include <limits>

#include "base/run_records.h"
#include "base/settings.h"

namespace {

// A count that wrapped to 0 would end the test, or divide by it.
void add_one_saturating(std::uint32_t* count) {
  if (*count != std::numeric_limits<std::uint32_t>::max()) ++*count;
}

}  // namespace

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

// Slots of another batch would let its packets stand for those that did not come.
void arm_batch(const test_settings* settings, const run_state* run) {
  for (std::uint32_t sequence = 0; sequence < settings->remote_echoes; ++sequence) arm_slot(settings, run, sequence);
}

void record_arrival(std::uint32_t sequence, std::uint32_t source, std::int64_t time, run_state* run,
                    test_stats* stats) {
  packet_slot* slot = slot_of(run, sequence);
  slot->rx_time = time;
  slot->outstanding = 0;
  slot->responder = source;
  if (stats->batch_first_seq < 0) stats->batch_first_seq = static_cast<std::int32_t>(sequence);
  stats->batch_last_seq = static_cast<std::int32_t>(sequence);
  ++stats->rx_packets;
  run->last_rx_time = time;
  run->last_rx_seq = sequence;
}

void close_batch(run_state* run) {
  ++run->batch;
}

void repeat_batch(test_settings* settings) {
  add_one_saturating(&settings->total_requests);
  add_one_saturating(&settings->echo_count);
}
