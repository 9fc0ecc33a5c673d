#include "base/run_records.h"

#include "base/clock.h"
#include "base/settings.h"

run_state* current_run_state = nullptr;

std::int64_t time_of_step(run_state* run) {
  if (run->step_time == 0) run->step_time = clock_now();
  return run->step_time;
}

// What only an answer sets stays as it was: nobody looks at it before the request is settled.
packet_slot* arm_slot(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                      std::int64_t tx_time) {
  packet_slot* slot = slot_of(run, sequence);
  slot->sequence = sequence;
  slot->process_id = static_cast<std::uint16_t>(settings->process_id);
  slot->slot_index = static_cast<std::uint16_t>(sequence & (run->packet_table_size - 1));
  slot->outstanding = 1;
  slot->responder = 0;
  slot->destination = settings->start_host;
  slot->stamp_lag_usec = 0;
  slot->tx_time = tx_time;
  return slot;
}

void settle_answered(packet_slot* slot, std::uint8_t response_type, std::uint32_t responder, std::int64_t time) {
  const std::int64_t stamped = slot->tx_time + usec_to_ticks(slot->stamp_lag_usec);
  if (stamped <= time) slot->tx_time = stamped;
  settle_slot(slot, response_type, responder, time);
}
