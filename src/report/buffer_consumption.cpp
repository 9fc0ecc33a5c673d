#include "report/buffer_consumption.h"

#include <algorithm>
#include <cstdint>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"

namespace {

constexpr std::uint32_t shortest_trusted_delay_usec = 1000;  // below, the sender's pacing is coarser than its schedule

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
