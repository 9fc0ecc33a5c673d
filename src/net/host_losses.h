// What this host itself lost, told at the end of a run so that nobody takes it for the network's loss.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

// Counters of this host (of its network namespace) that a run's end is compared with; from /proc/net/snmp, proc(5).
struct host_counters {
  bool known;                       // they could be read
  std::uint64_t discarded_packets;  // "OutDiscards" of Ip: outgoing, given up above all for a full interface queue
  std::uint64_t full_buffers;       // "RcvbufErrors" of Udp: datagrams that a socket's buffer had no room for
};

// As they are now.
[[nodiscard]] host_counters read_host_counters();

// Says on standard error what a full receive buffer cost a run that reads (SO_MEMINFO in socket(7)) and how large that
// buffer was, and how many outgoing packets this host discarded since `before`. Nothing of what is 0 or cannot be
// known.
void report_host_losses(const test_settings* settings, const run_state* run, const test_stats* stats,
                        const host_counters* before);
