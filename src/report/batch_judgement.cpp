#include "report/batch_judgement.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/units.h"
#include "report/sample_list.h"

namespace {

// A figure as a whole number; one that its type cannot hold becomes the nearest that it can.
template <typename integer>
integer truncated(double figure) {
  constexpr double lowest = std::numeric_limits<integer>::min();
  constexpr double highest = std::numeric_limits<integer>::max();
  return static_cast<integer>(std::clamp(figure, lowest, highest));
}

std::int64_t measured_span_usec(const run_state* run, const test_stats* stats) {
  if (stats->batch_first_seq < 0) return 0;
  const packet_slot* first = slot_of(run, static_cast<std::uint32_t>(stats->batch_first_seq));
  const packet_slot* last = slot_of(run, static_cast<std::uint32_t>(stats->batch_last_seq));
  return usec_between(first->rx_time, last->rx_time);
}

// n packets received span n - 1 intervals. Bits per usec are Mbit/s.
std::int32_t rate_over(std::int64_t span_usec, const run_state* run, const test_stats* stats) {
  const auto intervals = static_cast<std::int64_t>(stats->rx_packets) - 1;
  return truncated<std::int32_t>(run->payload_length * kilo * static_cast<double>(intervals) * bits_per_byte /
                                 static_cast<double>(span_usec));
}

}  // namespace

batch_judgement judge_batch(const test_settings* settings, const run_state* run, const test_stats* stats) {
  batch_judgement batch = {};
  batch.span_usec = measured_span_usec(run, stats);
  if (batch.span_usec != 0) {
    batch.rate_kbps = rate_over(batch.span_usec, run, stats);
  } else {
    batch.span_usec = settings->command_period_usec;
  }
  batch.lost = low32(settings->remote_echoes - static_cast<std::uint32_t>(stats->rx_packets));
  const auto last_sequence = static_cast<std::uint32_t>(stats->batch_last_seq);
  batch.bad = stats->batch_first_seq != 0 || last_sequence != settings->remote_echoes - 1;
  return batch;
}

void count_batch(const batch_judgement* batch, test_stats* stats) {
  const auto lost = static_cast<std::uint64_t>(static_cast<std::int64_t>(batch->lost));
  if (batch->bad) {
    ++stats->bad_samples;
    stats->lost_in_bad_samples += lost;
    return;
  }
  sample_list_add(&bandwidth_samples, static_cast<std::uint32_t>(batch->rate_kbps));
  sample_list_add(&buffer_samples, truncated<std::uint32_t>(stats->buffer_consumption_usec));
  stats->lost_packets += lost;
}
