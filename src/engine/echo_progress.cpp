#include "engine/echo_progress.h"

#include <cstdint>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "engine/pacing.h"
#include "report/packet_lines.h"
#include "report/summary.h"
#include "wire/icmp_echo.h"

namespace {

void settle_if_timed_out(const test_settings* settings, packet_slot* slot, run_state* run, test_stats* stats) {
  if (slot->outstanding == 0) return;
  const std::int64_t now = time_of_step(run);
  if (usec_between(slot->tx_time, now) < settings->timeout_usec) return;
  settle_slot(slot, icmp_echo_reply, 0, now);
  ++stats->lost_packets;
}

void report_answered(const test_settings* settings, std::uint32_t sequence, const packet_slot* slot,
                     test_stats* stats) {
  const std::int64_t round_trip_usec = usec_between(slot->tx_time, slot->rx_time);
  add_latency(stats, round_trip_usec);
  if (settings->silent != 0 || !speaks(settings)) return;
  print_reception(sequence, slot->response_type, round_trip_usec, slot->responder);
}

void report_lost(const test_settings* settings, std::uint32_t sequence, const packet_slot* slot) {
  if (settings->no_timeout_messages != 0 || !speaks(settings)) return;
  print_timeout(sequence, slot);
}

void report_request(const test_settings* settings, std::uint32_t sequence, const packet_slot* slot, test_stats* stats) {
  if (slot->responder != 0) {
    report_answered(settings, sequence, slot, stats);
  } else {
    report_lost(settings, sequence, slot);
  }
}

// After a failed TCP send the send counter stands at the end of the test; the requests behind the failed one were never
// sent, which shows in slots that do not carry their numbers. The cursor passes all of them at once.
bool was_never_sent(const packet_slot* slot, std::uint32_t sequence) {
  return slot->sequence != sequence;
}

// Answers come in any order; the cursor stands at the oldest open request until that is settled, one way or the other.
void report_settled_requests(const test_settings* settings, run_state* run, test_stats* stats) {
  while (run->oldest_outstanding < run->current_tx__packet) {
    packet_slot* slot = slot_of(run, run->oldest_outstanding);
    if (was_never_sent(slot, run->oldest_outstanding)) {
      run->oldest_outstanding = run->current_tx__packet;
      return;
    }
    settle_if_timed_out(settings, slot, run, stats);
    if (slot->outstanding != 0) return;
    if (settings->average_window != 0 && stats->tx_packets % settings->average_window == 0) {
      print_running_bitrate(settings, run, stats);
      run->step_time = 0;
    }
    report_request(settings, run->oldest_outstanding, slot, stats);
    if (settings->silent == 0 || slot->responder == 0) run->step_time = 0;  // a line may have waited for its reader
    ++run->oldest_outstanding;
  }
}

bool next_packet_is_due(const test_settings* settings, run_state* run) {
  return !all_is_sent(settings, run) && release_is_due(run, time_of_step(run));
}

bool all_is_reported(const test_settings* settings, const run_state* run) {
  return all_is_sent(settings, run) && run->oldest_outstanding == run->current_tx__packet;
}

}  // namespace

int echo_progress(const test_settings* settings, run_state* run, test_stats* stats) {
  report_settled_requests(settings, run, stats);
  return next_packet_is_due(settings, run) || all_is_reported(settings, run) ? 0 : 1;
}
