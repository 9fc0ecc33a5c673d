#include "net/send_packet.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "net/kernel_stamps.h"
#include "net/send_datagram.h"
#include "net/socket_connection.h"
#include "report/packet_lines.h"
#include "wire/icmp_echo.h"
#include "wire/messages.h"
#include "wire/remote_command.h"

std::array<std::uint8_t, message_buffer_bytes> transmit_buffer = {};

namespace {

constexpr std::uint32_t largest_ttl = 127;

message_type type_of_message(const test_settings* settings) {
  if (is_commander(settings)) return message_operation;
  return settings->unidirectional != 0 ? message_data : message_echo_request;
}

// Returns the length of the frame in bytes.
std::uint32_t build_frame(const test_settings* settings, const run_state* run, const command_body* command) {
  write_frame_header(settings, run, run->current_tx__packet, transmit_buffer.data());
  if (is_commander(settings)) {
    std::memcpy(transmit_buffer.data() + test_header_bytes, command->bytes, sizeof command->bytes);
  }
  return frame_bytes(settings, run);
}

// What is sent from this buffer next may be a stream that a peer commanded.
void clear_command_from_buffer() {
  std::fill_n(transmit_buffer.data() + test_header_bytes, sizeof(command_body), std::uint8_t{0});
}

// Packet 0 leaves with TTL 1, so that every packet reaches one hop further.
void set_ttl_of_hop(const test_settings* settings, const run_state* run) {
  const int ttl = static_cast<int>(std::min(run->current_tx__packet, largest_ttl - 1) + 1);
  if (setsockopt(run->data_socket, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl) == 0 || !speaks(settings)) return;
  std::fprintf(stderr, "ERROR: Could not set TTL for outbound request. Permissions?\n");
}

stall_rules rules_of_run(const test_settings* settings, const test_stats* stats) {
  if (is_command_run(settings)) return patience_of_a_monitor;
  return {.longest_usec = time_until_end(settings, stats), .discard_input = settings->ignore_responses != 0};
}

int send_on_connection(const test_settings* settings, const run_state* run, const test_stats* stats, packet_slot* slot,
                       std::uint32_t length) {
  slot->tx_time = clock_now();
  const stream_result result =
      send_all(run->data_socket, {transmit_buffer.data(), length}, rules_of_run(settings, stats));
  if (result.sent == length) return 0;
  if (result.stalled && sending_is_over(settings, stats)) return 1;
  std::fprintf(stdout, "Err- could not send %d bytes. Sent %d bytes\n", static_cast<int>(length - result.sent),
               static_cast<int>(result.sent));
  return -1;
}

int send_as_datagram(const test_settings* settings, run_state* run, const test_stats* stats, packet_slot* slot,
                     std::uint32_t length) {
  const sockaddr_in destination = current_destination(settings);
  const datagram_sent sent = send_datagram(settings, run, stats, &destination, {transmit_buffer.data(), length});
  slot->tx_time = sent.sent_at;
  if (outcome_of(sent.result) == send_outcome::full) return 1;
  if (sent.result != static_cast<ssize_t>(length)) report_refused_packet(settings, run, length, sent.result);
  take_send_stamps(run);
  if (!sent.at_once) renumber_send_stamps(run->current_tx__packet + 1, run);
  return 0;
}

void move_on_in_sweep(test_settings* settings, const run_state* run) {
  if (is_commander(settings) || run->current_tx__packet % settings->echo_count != 0) return;
  settings->start_host = htonl(ntohl(settings->start_host) + 1);
}

}  // namespace

std::uint32_t frame_bytes(const test_settings* settings, const run_state* run) {
  return is_commander(settings) ? std::uint32_t{sizeof(operation_message)} : run->transmit_length;
}

std::uint32_t write_frame_header(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                                 std::uint8_t* frame) {
  if (uses_icmp(settings)) {
    const icmp_echo echo = {
        .type = settings->unidirectional != 0 ? icmp_echo_reply : icmp_echo_request,
        .identifier = static_cast<std::uint16_t>(settings->process_id),
        .sequence = static_cast<std::uint16_t>(sequence),
    };
    write_icmp_echo(&echo, frame);
    return icmp_header_bytes;
  }
  const test_header header = {
      .type = type_of_message(settings),
      .process_id = settings->process_id,
      .batch = run->batch,
      .sequence = sequence,
      .length = frame_bytes(settings, run),
  };
  write_test_header(&header, frame);
  return test_header_bytes;
}

// The slot is there before the send, whose time it takes.
int send_test_packet(test_settings* settings, run_state* run, test_stats* stats, const command_body* command) {
  const std::uint32_t length = build_frame(settings, run, command);
  packet_slot* slot = arm_slot(settings, run, run->current_tx__packet, run->last_tx_time);
  if (settings->traceroute != 0 && uses_icmp(settings)) set_ttl_of_hop(settings, run);
  print_debug_line(settings, run, stats, run->current_tx__packet);

  const bool on_connection = uses_tcp(settings);
  const int result = on_connection ? send_on_connection(settings, run, stats, slot, length)
                                   : send_as_datagram(settings, run, stats, slot, length);
  if (is_commander(settings)) clear_command_from_buffer();
  if (result != 0) return result;

  ++stats->tx_packets;
  ++run->current_tx__packet;
  move_on_in_sweep(settings, run);
  return 0;
}
