#include "net/message_handler.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "app/test_settings.h"
#include "engine/batch.h"
#include "engine/clock.h"
#include "engine/run_records.h"
#include "engine/test_loop.h"  // the one call back into the loop: run_remote_command below
#include "net/address_text.h"
#include "net/arrival.h"
#include "net/datagram_send.h"
#include "net/tcp_connection.h"
#include "wire/icmp_echo.h"
#include "wire/remote_command.h"
#include "wire/test_message.h"

namespace {

constexpr std::uint32_t no_batch = 0xFFFFFFFF;

struct sender_address {
  std::uint32_t address;  // network byte order
  std::uint16_t port;     // network byte order
};

// Where echo replies are built. Zero at start and only headers are written, so that no reply shows other memory.
std::array<std::uint8_t, message_buffer_bytes> reply_buffer = {};

// Whoever sends is the partner: a receiver in partner mode takes over the sender's identifier, and starts its stream
// tracking anew whenever the sender or the batch changes.
void adopt_partner(const test_header* header, test_settings* settings, run_state* run) {
  if (header->process_id != settings->process_id) {
    run->batch = no_batch;
    settings->process_id = header->process_id;
  }
  if (header->batch != run->batch) {
    run->batch = header->batch;
    run->last_rx_time = 0;
  }
}

void send_reply_on_connection(int socket, std::size_t length) {
  if (send_all(socket, {reply_buffer.data(), length}, patience_of_a_monitor).sent == length) return;
  // Half a reply would shift every message behind it: end the connection, and the next read finds it ended.
  shutdown(socket, SHUT_RDWR);
}

// A reply has the size of the request as it came. What becomes of it is not looked at: a lost reply is a lost packet to
// whoever asked.
void send_echo_reply(const test_header* request, sender_address sender, std::size_t length,
                     const test_settings* settings, const test_stats* stats, const run_state* run) {
  const test_header reply = {
      .type = message_echo_reply,
      .process_id = request->process_id,
      .batch = 0,
      .sequence = request->sequence,
      .length = static_cast<std::uint32_t>(length),
  };
  write_test_header(&reply, reply_buffer.data());
  if (settings->tcp != 0) {
    send_reply_on_connection(run->data_socket, length);
    return;
  }
  sockaddr_in destination = {};
  destination.sin_family = AF_INET;
  destination.sin_addr.s_addr = sender.address;
  destination.sin_port = sender.port;
  std::int64_t sent_at = 0;
  (void)send_datagram(settings, run, stats, &destination, {reply_buffer.data(), length}, &sent_at);
}

// Echo mode: a duplicate, or an answer to a request that timed out, is passed over in silence.
void settle_answered_request(const test_header* header, std::uint32_t source, const frame_arrival* arrival,
                             test_stats* stats, const run_state* run) {
  packet_slot* slot = slot_of(run, header->sequence);
  if (slot->outstanding == 0) return;
  settle_slot(slot, icmp_echo_reply, source, arrival_time(arrival, slot->tx_time));
  ++stats->rx_packets;
}

void print_arrival(const test_header* header, std::uint32_t source, std::int64_t gap_usec) {
  std::fprintf(stdout, "%3d:%12d: Received %s in %9.6fs from %s\n", low32(header->batch),
               static_cast<int>(header->sequence & 0xFFFFU), message_type_names[header->type],
               usec_to_seconds(gap_usec), address_text(source));
}

void report_skip(const test_header* header, std::uint32_t seq16, const run_state* run) {
  std::fprintf(stderr, "Error- sequence skipped from %d:%d to %d; %d packets lost\n", low32(header->batch),
               low32(run->last_rx_seq), low32(seq16), low32(seq16 - run->last_rx_seq - 1));
}

void account_gap(const test_header* header, std::int64_t gap_usec, const test_settings* settings, test_stats* stats) {
  add_latency(stats, gap_usec);
  if (gap_usec <= settings->timeout_usec) return;
  if (settings->remote_run == 0) {
    std::fprintf(stderr, "Error- packet %d:%d arrived %d usecs from last one\n", low32(header->batch),
                 low32(header->sequence), usec_as_int(gap_usec));
  }
  ++stats->late_arrivals;
}

// Partner mode: the first packet of a stream is neither checked for its sequence nor timed.
frame_result track_stream_packet(const test_header* header, std::uint32_t source, const frame_arrival* arrival,
                                 const test_settings* settings, test_stats* stats, run_state* run) {
  const std::int64_t now = arrival_time(arrival, run->last_rx_time);
  const std::uint32_t seq16 = header->sequence & 0xFFFFU;
  const bool first_of_stream = run->last_rx_time == 0;
  const std::int64_t gap_usec = first_of_stream ? 0 : usec_between(run->last_rx_time, now);

  if (settings->silent == 0 && settings->remote_run == 0) print_arrival(header, source, gap_usec);
  if (!first_of_stream) {
    if (seq16 == ((run->last_rx_seq + 1) & 0xFFFFU)) {
      account_gap(header, gap_usec, settings, stats);
    } else if (settings->remote_run == 0) {
      report_skip(header, seq16, run);
    }
  }
  record_arrival(seq16, source, now, run, stats);
  return seq16 == settings->remote_echoes - 1 ? frame_ends_batch : frame_counted;
}

// The one way from a handler back into the test loop: streams the commanded packets to `source` and returns when the
// last is sent. The nesting is one deep, because read_remote_command makes every command a run that never receives.
void run_remote_command(const std::uint8_t* message, const test_header* header, std::uint32_t source,
                        const test_settings* settings, const run_state* run) {
  command_body body = {};
  std::memcpy(body.bytes, message + test_header_bytes, sizeof body.bytes);
  test_settings command = {};
  read_remote_command(&body, source, settings, &command);
  run_state command_run = {};
  command_run.data_socket = run->data_socket;
  command_run.batch = header->batch;
  test_stats command_stats = {};
  run_test(&command, &command_stats, &command_run, nullptr);
}

}  // namespace

frame_result handle_test_message(std::uint32_t source_address, std::uint16_t source_port, std::uint8_t* message,
                                 int length, const frame_arrival* arrival, test_settings* settings, test_stats* stats,
                                 run_state* run) {
  if (length < 0) return frame_none;
  const auto bytes = static_cast<std::size_t>(length);
  test_header header = {};
  if (!read_test_header({message, bytes}, &header)) return frame_none;
  if (header.type == message_operation && bytes < sizeof(operation_message)) return frame_none;

  if (settings->partner_mode != 0) adopt_partner(&header, settings, run);
  if (header.process_id != settings->process_id) return frame_none;

  switch (header.type) {
    case message_echo_request:
      send_echo_reply(&header, {source_address, source_port}, bytes, settings, stats, run);
      [[fallthrough]];
    case message_echo_reply:
    case message_data:
      if (settings->partner_mode != 0)
        return track_stream_packet(&header, source_address, arrival, settings, stats, run);
      settle_answered_request(&header, source_address, arrival, stats, run);
      return frame_none;
    case message_operation:
      run_remote_command(message, &header, source_address, settings, run);
      return frame_none;
    default:
      if (settings->remote_run == 0) std::fprintf(stderr, "Error: Inavlid UDP type received\n");
      return frame_none;
  }
}
