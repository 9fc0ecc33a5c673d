#include "net/transmitter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "app/signals.h"
#include "app/test_settings.h"
#include "engine/clock.h"
#include "engine/run_records.h"
#include "net/tcp_send.h"
#include "wire/icmp_echo.h"
#include "wire/remote_command.h"
#include "wire/test_message.h"

std::array<std::uint8_t, message_buffer_bytes> transmit_buffer = {};

namespace {

constexpr std::uint32_t largest_ttl = 127;

void build_icmp_frame(const test_settings* settings, const run_state* run) {
  const icmp_echo echo = {
      .type = settings->unidirectional != 0 ? icmp_echo_reply : icmp_echo_request,
      .identifier = static_cast<std::uint16_t>(settings->process_id),
      .sequence = static_cast<std::uint16_t>(run->current_tx__packet),
  };
  write_icmp_echo(&echo, transmit_buffer.data());
}

message_type type_of_message(const test_settings* settings) {
  if (settings->command_mode != 0) return message_operation;
  return settings->unidirectional != 0 ? message_data : message_echo_request;
}

// Returns the length of the frame in bytes.
std::uint32_t build_frame(const test_settings* settings, const run_state* run, const command_body* command) {
  if (uses_icmp(settings)) {
    build_icmp_frame(settings, run);
    return run->transmit_length;
  }
  const bool is_command = settings->command_mode != 0;
  const std::uint32_t length = is_command ? std::uint32_t{sizeof(operation_message)} : run->transmit_length;
  const test_header header = {
      .type = type_of_message(settings),
      .process_id = settings->process_id,
      .batch = run->batch,
      .sequence = run->current_tx__packet,
      .length = length,
  };
  write_test_header(&header, transmit_buffer.data());
  if (is_command) std::memcpy(transmit_buffer.data() + test_header_bytes, command->bytes, sizeof command->bytes);
  return length;
}

// Marks the slot of `sequence` as sent now. Returns the slot.
const packet_slot* arm_slot(const test_settings* settings, const run_state* run, std::uint32_t sequence) {
  packet_slot* slot = slot_of(run, sequence);
  slot->sequence = sequence;
  slot->process_id = static_cast<std::uint16_t>(settings->process_id);
  slot->slot_index = static_cast<std::uint16_t>(sequence & (run->packet_table_size - 1));
  slot->outstanding = 1;
  slot->responder = 0;
  slot->destination = settings->start_host;
  slot->tx_time = clock_now();
  return slot;
}

// What is sent from this buffer next may be a stream that a peer commanded.
void clear_command_from_buffer() {
  std::fill_n(transmit_buffer.data() + test_header_bytes, sizeof(command_body), std::uint8_t{0});
}

// The monitor answers a command with packets numbered from 0: each gets its slot.
void arm_stream_slots(const test_settings* settings, const run_state* run) {
  for (std::uint32_t sequence = 0; sequence < settings->remote_echoes; ++sequence) arm_slot(settings, run, sequence);
}

// Packet 0 leaves with TTL 1, so that every packet reaches one hop further.
void set_ttl_of_hop(const test_settings* settings, const run_state* run) {
  const int ttl = static_cast<int>(std::min(run->current_tx__packet, largest_ttl - 1) + 1);
  if (setsockopt(run->data_socket, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl) == 0 || settings->remote_run != 0) return;
  std::fprintf(stderr, "ERROR: Could not set TTL for outbound request. Permissions?\n");
}

// A test with a duration does not outlast it on a connection that takes nothing.
std::int64_t time_left_usec(const test_settings* settings, const test_stats* stats) {
  if (settings->duration_sec == 0) return std::numeric_limits<std::int64_t>::max();
  return settings->duration_sec * usec_per_second - usec_between(stats->start_time, clock_now());
}

stall_rules rules_of_run(const test_settings* settings, const test_stats* stats) {
  if (settings->remote_run != 0) return give_up_on_stuck_peer;
  return {.longest_usec = time_left_usec(settings, stats), .discard_input = settings->ignore_responses != 0};
}

bool test_ended_meanwhile(const test_settings* settings, const test_stats* stats) {
  return stop_signal() != 0 || time_left_usec(settings, stats) <= 0;
}

bool send_on_connection(const test_settings* settings, const run_state* run, const test_stats* stats,
                        std::uint32_t length) {
  const std::size_t sent = send_all(run->data_socket, {transmit_buffer.data(), length}, rules_of_run(settings, stats));
  if (sent == length) return true;
  if (test_ended_meanwhile(settings, stats)) return false;
  std::fprintf(stdout, "Err- could not send %d bytes. Sent %d bytes\n", static_cast<int>(length - sent),
               static_cast<int>(sent));
  return false;
}

void send_datagram(const test_settings* settings, const run_state* run, std::uint32_t length) {
  sockaddr_in destination = {};
  destination.sin_family = AF_INET;
  destination.sin_addr.s_addr = settings->start_host;
  destination.sin_port = uses_icmp(settings) ? 0 : settings->remote_port;
  const auto* address = reinterpret_cast<const sockaddr*>(&destination);
  ssize_t sent = 0;
  do {
    sent = sendto(run->data_socket, transmit_buffer.data(), length, 0, address, sizeof destination);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(length)) {
    std::fprintf(stdout, "Err- could not send %d bytes, sent %d bytes\n", static_cast<int>(length),
                 static_cast<int>(sent));
  }
}

void move_on_in_sweep(test_settings* settings, const run_state* run) {
  if (run->current_tx__packet % settings->echo_count != 0) return;
  settings->start_host = htonl(ntohl(settings->start_host) + 1);
}

void print_debug_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      const packet_slot* slot) {
  std::fprintf(stdout, "%8.6f: Tx one, process_id = %08x, *current_tx__packet = %d, batch = %d\n",
               usec_to_seconds(usec_between(stats->start_time, slot->tx_time)), settings->process_id,
               low32(run->current_tx__packet), low32(run->batch));
}

}  // namespace

int send_test_packet(test_settings* settings, run_state* run, test_stats* stats, const command_body* command) {
  const std::uint32_t length = build_frame(settings, run, command);
  const packet_slot* slot = arm_slot(settings, run, run->current_tx__packet);
  if (settings->traceroute != 0 && uses_icmp(settings)) set_ttl_of_hop(settings, run);
  if (settings->debug != 0 && settings->remote_run == 0) print_debug_line(settings, run, stats, slot);

  if (uses_icmp(settings) || settings->udp != 0) {
    send_datagram(settings, run, length);
  } else if (!send_on_connection(settings, run, stats, length)) {
    return -1;
  }

  ++stats->tx_packets;
  if (settings->command_mode != 0) {
    clear_command_from_buffer();
    arm_stream_slots(settings, run);
  }
  ++run->current_tx__packet;
  move_on_in_sweep(settings, run);
  return 0;
}
