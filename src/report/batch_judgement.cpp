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

constexpr std::uint32_t shortest_trusted_delay_usec = 1000;  // below, the sender's pacing is coarser than its schedule

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

struct arrival_range {
  std::int64_t first;  // sequence numbers
  std::int64_t last;
};

struct deviation_range {
  double smallest;  // usec; negative = later than scheduled
  double largest;
  bool any;
};

const packet_slot* slot_at(const run_state* run, std::int64_t sequence) {
  return slot_of(run, static_cast<std::uint32_t>(sequence));
}

bool is_received(const run_state* run, std::int64_t sequence) {
  return slot_at(run, sequence)->responder != 0;
}

double usec_apart(const run_state* run, std::int64_t earlier, std::int64_t later) {
  return static_cast<double>(ticks_to_usec(slot_at(run, later)->rx_time - slot_at(run, earlier)->rx_time));
}

arrival_range received_range(const run_state* run, std::int64_t last_sequence) {
  arrival_range range = {.first = 0, .last = last_sequence};
  while (range.first < range.last && !is_received(run, range.first)) ++range.first;
  while (range.last > range.first && !is_received(run, range.last)) --range.last;
  return range;
}

double nominal_spacing(const test_settings* settings, const run_state* run, arrival_range range) {
  if (settings->delay_usec >= shortest_trusted_delay_usec) return settings->delay_usec;
  return usec_apart(run, range.first, range.last) / static_cast<double>(range.last - range.first);
}

void widen(deviation_range* range, double deviation) {
  range->smallest = range->any ? std::min(range->smallest, deviation) : deviation;
  range->largest = range->any ? std::max(range->largest, deviation) : deviation;
  range->any = true;
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

// A player that takes one packet every spacing must start late enough for the latest of them, and until then has to
// hold those that came early: what it must be able to hold, in time, is the way from the earliest to the latest.
void compute_buffer_consumption(const run_state* run, test_stats* stats, const test_settings* settings) {
  if (stats->batch_last_seq < 0) {
    stats->buffer_consumption_usec = 0.0;
    return;
  }
  const arrival_range range = received_range(run, stats->batch_last_seq);
  if (range.first == range.last) return;

  const double spacing = nominal_spacing(settings, run, range);
  deviation_range deviations = {};
  std::int64_t base = range.first;
  for (std::int64_t sequence = range.first; sequence <= range.last; ++sequence) {
    if (!is_received(run, sequence)) {
      base = sequence + 1;
    } else if (sequence != base) {
      widen(&deviations, static_cast<double>(sequence - base) * spacing - usec_apart(run, base, sequence));
    }
  }
  stats->buffer_consumption_usec = deviations.largest - deviations.smallest;
}
