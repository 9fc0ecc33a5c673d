// One test packet: its size and its header bytes, and its way out.
#pragma once

#include <array>
#include <cstdint>

#include "wire/packet_sizes.h"

struct command_body;
struct run_state;
struct test_settings;
struct test_stats;

// Where every frame is built. Zero at start; only header bytes, and for the moment of its sending a command, are ever
// written, so that all filler on the wire is zero.
extern std::array<std::uint8_t, message_buffer_bytes> transmit_buffer;

// Sends the next packet of the run: an ICMP echo, a UDP or TCP test message, in command mode an "Operation" that
// carries `command` (read only there). Records it in its slot with the time just before the send, counts it, and in a
// sweep moves settings->start_host on to the next host after its last packet; commands all go to the first. Returns
//   0   it went out, or a datagram was refused (a line is printed, the packet counts as sent);
//   1   the test ended while the packet had to wait for room: nothing is counted, and nothing may be sent behind it on
//       a connection, which may have taken a part of it;
//   -1  a TCP send failed (a line is printed): nothing is counted and the caller closes the connection.
[[nodiscard]] int send_test_packet(test_settings* settings, run_state* run, test_stats* stats,
                                   const command_body* command);

// Bytes of one whole packet as the socket takes it: a command is always 164 bytes, all else run->transmit_length.
[[nodiscard]] std::uint32_t frame_bytes(const test_settings* settings, const run_state* run);

// Writes the header of packet `sequence` to `frame`: 8 bytes of an ICMP echo, 20 of a test message. What follows it in
// a packet is zero, but for a command. Returns the bytes written.
std::uint32_t write_frame_header(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                                 std::uint8_t* frame);
