// What this host itself lost during a run, by its own counters.
#pragma once

#include <cstdint>

#include "report/summary.h"

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

// What a full receive buffer cost a run that reads (SO_MEMINFO in socket(7)), and how many outgoing packets this host
// discarded since `before`. What cannot be known is 0.
[[nodiscard]] host_losses losses_since(const host_counters* before, const test_settings* settings, const run_state* run,
                                       const test_stats* stats);
