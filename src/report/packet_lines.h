// The lines of single packets.
#pragma once

#include <cstdint>

struct packet_slot;
struct run_state;
struct test_settings;
struct test_stats;

// With -D, the line of packet `sequence`, which is about to be sent, on standard output.
void print_debug_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      std::uint32_t sequence);

// The line of an answer, or of a packet of a stream, on standard output: its number, its ICMP type, its round trip or
// its distance from the packet before it (usec), its source (network byte order).
void print_reception(std::uint32_t sequence, std::uint8_t icmp_type, std::int64_t usec, std::uint32_t source);

// The line of a request that was given up, on standard output.
void print_timeout(std::uint32_t sequence, const packet_slot* slot);
