#include "net/receive_stream.h"

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "net/kernel_stamps.h"

// In 16 bits, since ICMP carries no more and no batch is longer: a stream goes on across the wrap from 65535 to 0.
stream_packet judge_stream_packet(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                                  const frame_arrival* arrival) {
  stream_packet packet = {};
  packet.time = arrival_in_stream(arrival, run->last_rx_time);
  packet.sequence = sequence & 0xFFFFU;
  packet.is_first = run->last_rx_time == 0;
  if (packet.is_first) return packet;
  packet.gap_usec = usec_between(run->last_rx_time, packet.time);
  packet.skipped = packet.sequence - run->last_rx_seq - 1;
  packet.in_sequence = (packet.skipped & 0xFFFFU) == 0;
  packet.late = packet.gap_usec > settings->timeout_usec;
  return packet;
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
