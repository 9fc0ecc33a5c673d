// One packet of a run: its size and its header bytes.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;

// Bytes of one whole packet as the socket takes it: a command is always 164 bytes, all else run->transmit_length.
[[nodiscard]] std::uint32_t frame_bytes(const test_settings* settings, const run_state* run);

// Writes the header of packet `sequence` to `frame`: 8 bytes of an ICMP echo, 20 of a test message. What follows it in
// a packet is zero, but for a command. Returns the bytes written.
std::uint32_t write_frame_header(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                                 std::uint8_t* frame);
