#include "net/icmp_handler.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include "base/address_text.h"
#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "net/kernel_stamps.h"
#include "net/receive_stream.h"
#include "report/packet_lines.h"
#include "wire/icmp_echo.h"

namespace {

// Echo requests to one host come back in order, so a reply that overtakes older requests tells that they are lost.
// Requests below the report cursor are settled already; until the window has filled once, nothing is declared lost.
void declare_overtaken_lost(const test_settings* settings, const run_state* run, test_stats* stats,
                            const packet_slot* answered) {
  if (settings->total_requests != settings->echo_count) return;
  if (run->current_tx__packet < settings->max_outstanding) return;
  std::uint32_t sequence = std::max(run->current_tx__packet - settings->max_outstanding, run->oldest_outstanding);
  for (; sequence < run->current_tx__packet; ++sequence) {
    packet_slot* slot = slot_of(run, sequence);
    if (slot == answered) return;
    if (slot->outstanding == 0) continue;
    settle_slot(slot, icmp_echo_reply, 0, clock_now());
    ++stats->lost_packets;
  }
}

frame_result settle_echo_reply(const icmp_echo* echo, std::uint32_t source, const frame_arrival* arrival,
                               const test_settings* settings, run_state* run, test_stats* stats) {
  packet_slot* slot = open_request(run, echo->sequence);
  if (slot == nullptr) {
    if (settings->no_timeout_messages == 0) {
      std::fprintf(stdout, "Err- Unexpected echo response received. Duplicate or out of order, ID %d\n",
                   static_cast<int>(echo->sequence));
    }
    ++stats->late_responses;
    return frame_none;
  }
  settle_answered(slot, echo->type, source, arrival_of_answer(arrival, slot->tx_time));
  ++stats->rx_packets;
  declare_overtaken_lost(settings, run, stats, slot);
  return frame_counted;
}

// The errors that routers and hosts return for our requests; in a traceroute each of them is a hop.
frame_result settle_quoted_request(const icmp_datagram* parts, const frame_arrival* arrival,
                                   const test_settings* settings, run_state* run, test_stats* stats) {
  icmp_echo quoted = {};
  if (!read_quoted_echo(parts->icmp, &quoted)) return frame_none;
  if (quoted.identifier != static_cast<std::uint16_t>(settings->process_id)) return frame_none;
  packet_slot* slot = open_request(run, quoted.sequence);
  if (slot == nullptr) return frame_none;
  ++stats->rx_packets;
  settle_answered(slot, parts->icmp[0], parts->source, arrival_of_answer(arrival, slot->tx_time));
  return frame_counted;
}

// The packet that locks the monitor is not itself counted. A monitor sends one echo of its own before it listens, which
// without a host goes to this host (address 0), and so does every answer to it: 127.0.0.1 must not lock.
void lock_monitor(const icmp_echo* echo, std::uint32_t source, test_settings* settings) {
  if (source == inet_addr("127.0.0.1")) return;
  settings->process_id = echo->identifier;
  if (!speaks(settings)) return;
  std::fprintf(stdout, "Monitor locked on %s, id %d\n", address_text(source), low32(settings->process_id));
}

void print_stream_packet(const icmp_echo* echo, std::uint32_t source, const stream_packet* packet,
                         const test_settings* settings, const run_state* run) {
  if (packet->late) {
    std::fprintf(stderr, "Error- packet arrived %d usecs from last one\n", usec_as_int(packet->gap_usec));
  }
  if (!packet->in_sequence) {
    std::fprintf(stderr, "Error- sequence skipped from %d to %d; %d packets lost\n", low32(run->last_rx_seq),
                 low32(packet->sequence), low32(packet->skipped));
  }
  if (settings->silent != 0) return;
  print_reception(packet->sequence, echo->type, packet->gap_usec, source);
}

void count_stream_packet(const stream_packet* packet, run_state* run, test_stats* stats) {
  if (packet->late) ++stats->late_arrivals;
  if (!packet->is_first) stats->lost_packets += packet->skipped & 0xFFFFU;
  ++stats->rx_packets;
  run->last_rx_time = packet->time;
  run->last_rx_seq = packet->sequence;
}

// The first packet of a stream is counted, but neither printed nor checked.
frame_result track_stream_packet(const icmp_echo* echo, std::uint32_t source, const frame_arrival* arrival,
                                 const test_settings* settings, run_state* run, test_stats* stats) {
  const stream_packet packet = judge_stream_packet(settings, run, echo->sequence, arrival);
  if (!packet.is_first && speaks(settings)) print_stream_packet(echo, source, &packet, settings, run);
  count_stream_packet(&packet, run, stats);
  return frame_counted;
}

frame_result handle_echo_reply(const icmp_datagram* parts, const frame_arrival* arrival, test_settings* settings,
                               run_state* run, test_stats* stats) {
  const icmp_echo echo = read_icmp_echo(parts->icmp);
  if (echo.identifier == static_cast<std::uint16_t>(settings->process_id)) {
    if (is_partner(settings)) return track_stream_packet(&echo, parts->source, arrival, settings, run, stats);
    return settle_echo_reply(&echo, parts->source, arrival, settings, run, stats);
  }
  if (is_partner(settings) && settings->process_id == 0) lock_monitor(&echo, parts->source, settings);
  return frame_none;
}

bool is_known_type(std::uint8_t type) {
  switch (type) {
    case icmp_echo_reply:
    case icmp_destination_unreachable:
    case icmp_source_quench:
    case icmp_redirect:
      return true;
    default:
      return type >= icmp_echo_request && type <= icmp_address_mask_reply;
  }
}

}  // namespace

frame_result handle_icmp_response(const std::uint8_t* datagram, int length, const frame_arrival* arrival,
                                  test_settings* settings, test_stats* stats, run_state* run) {
  icmp_datagram parts = {};
  if (length < 0 || !locate_icmp({datagram, static_cast<std::size_t>(length)}, &parts)) return frame_none;

  if (internet_checksum(parts.icmp.data(), parts.icmp.size()) != 0xFFFF) {
    if (speaks(settings)) std::fprintf(stderr, "Error: Received ICMP message with bad ICMP checksum\n");
    return frame_none;
  }
  const std::uint8_t type = parts.icmp[0];
  if (type == icmp_echo_reply) return handle_echo_reply(&parts, arrival, settings, run, stats);
  if (type == icmp_destination_unreachable || type == icmp_time_exceeded) {
    return settle_quoted_request(&parts, arrival, settings, run, stats);
  }
  if (!is_known_type(type) && speaks(settings)) {
    std::fprintf(stderr, "Error: Inavlid ICMP type received\n");
  }
  return frame_none;
}
