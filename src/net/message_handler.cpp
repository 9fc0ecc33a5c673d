#include "net/message_handler.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "base/address_text.h"
#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "engine/loop.h"  // the one call back into the loop: run_remote_command below
#include "net/kernel_stamps.h"
#include "net/receive_stream.h"
#include "net/send_datagram.h"
#include "net/socket_connection.h"
#include "net/socket_options.h"
#include "wire/icmp_echo.h"
#include "wire/messages.h"
#include "wire/remote_command.h"

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
                     const test_settings* settings, run_state* run, const test_stats* stats) {
  const test_header reply = {
      .type = message_echo_reply,
      .process_id = request->process_id,
      .batch = 0,
      .sequence = request->sequence,
      .length = static_cast<std::uint32_t>(length),
  };
  write_test_header(&reply, reply_buffer.data());
  if (uses_tcp(settings)) {
    send_reply_on_connection(run->data_socket, length);
    return;
  }
  const sockaddr_in destination = socket_address(sender.address, sender.port);
  (void)send_datagram(settings, run, stats, &destination, {reply_buffer.data(), length});
  renumber_send_stamps(run->current_tx__packet, run);  // an echo test's, which may be asked too
}

// Echo mode: a duplicate, or an answer to a request that timed out, is passed over in silence.
void settle_answered_request(const test_header* header, std::uint32_t source, const frame_arrival* arrival,
                             const run_state* run, test_stats* stats) {
  packet_slot* slot = open_request(run, header->sequence);
  if (slot == nullptr) return;
  settle_answered(slot, icmp_echo_reply, source, arrival_of_answer(arrival, slot->tx_time));
  ++stats->rx_packets;
}

void print_arrival(const test_header* header, std::uint32_t source, const stream_packet* packet) {
  std::fprintf(stdout, "%3d:%12d: Received %s in %9.6fs from %s\n", low32(header->batch), low32(packet->sequence),
               message_type_names[header->type], usec_to_seconds(packet->gap_usec), address_text(source));
}

// Of a packet out of sequence only that is told: its gap is not that of two neighbours.
void print_irregularity(const test_header* header, const stream_packet* packet, const run_state* run) {
  if (!packet->in_sequence) {
    std::fprintf(stderr, "Error- sequence skipped from %d:%d to %d; %d packets lost\n", low32(header->batch),
                 low32(run->last_rx_seq), low32(packet->sequence), low32(packet->skipped));
  } else if (packet->late) {
    std::fprintf(stderr, "Error- packet %d:%d arrived %d usecs from last one\n", low32(header->batch),
                 low32(header->sequence), usec_as_int(packet->gap_usec));
  }
}

void count_gap(const stream_packet* packet, test_stats* stats) {
  if (!packet->in_sequence) return;
  add_latency(stats, packet->gap_usec);
  if (packet->late) ++stats->late_arrivals;
}

// Partner mode: the first packet of a stream is neither checked for its sequence nor timed.
frame_result track_stream_packet(const test_header* header, std::uint32_t source, const frame_arrival* arrival,
                                 const test_settings* settings, run_state* run, test_stats* stats) {
  const stream_packet packet = judge_stream_packet(settings, run, header->sequence, arrival);
  if (settings->silent == 0 && speaks(settings)) print_arrival(header, source, &packet);
  if (!packet.is_first && speaks(settings)) print_irregularity(header, &packet, run);
  count_gap(&packet, stats);
  record_arrival(packet.sequence, source, packet.time, run, stats);
  return packet.sequence == settings->remote_echoes - 1 ? frame_ends_batch : frame_counted;
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

  if (is_partner(settings)) adopt_partner(&header, settings, run);
  if (header.process_id != settings->process_id) return frame_none;

  switch (header.type) {
    case message_echo_request:
      send_echo_reply(&header, {source_address, source_port}, bytes, settings, run, stats);
      [[fallthrough]];
    case message_echo_reply:
    case message_data:
      if (is_partner(settings)) return track_stream_packet(&header, source_address, arrival, settings, run, stats);
      settle_answered_request(&header, source_address, arrival, run, stats);
      return frame_none;
    case message_operation:
      run_remote_command(message, &header, source_address, settings, run);
      return frame_none;
    default:
      if (speaks(settings)) std::fprintf(stderr, "Error: Inavlid UDP type received\n");
      return frame_none;
  }
}
