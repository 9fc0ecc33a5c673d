// Several packets in one call: what a run that ignores responses releases at once.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

inline constexpr std::uint32_t largest_burst = 64;  // packets; what the kernel segments in one call (udp(7))

// True when the packets of a release may share calls. They may not where the time of each one's send is measured, where
// each goes elsewhere or with another TTL, and on a connection.
[[nodiscard]] bool sends_bursts(const test_settings* settings);

// Sends the next `count` packets of the run, at most largest_burst, over UDP or ICMP: each with its own header, slot
// and count, in order. UDP frames to one host are handed over side by side for the kernel to cut
// (UDP_SEGMENT), unless it or the device has refused once, and never in a command run: packets that travel as one
// arrive as one. All else goes out with sendmmsg(2). A refused packet has its error line and counts as sent. Returns
// how many were sent or refused: fewer than `count` when the test ended while the send buffer was full.
[[nodiscard]] std::uint32_t send_burst(const test_settings* settings, run_state* run, test_stats* stats,
                                       std::uint32_t count);
