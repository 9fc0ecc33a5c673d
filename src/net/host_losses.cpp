#include "net/host_losses.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/test_settings.h"
#include "engine/run_records.h"

namespace {

using snmp_line = std::array<char, 2048>;

// Two lines stand for a protocol: the names of its counters, and below each its value.
bool find_counter(snmp_line names, snmp_line values, const char* name, std::uint64_t* counter) {
  char* next_name = nullptr;
  char* next_value = nullptr;
  const char* each_name = strtok_r(names.data(), " \n", &next_name);
  const char* each_value = strtok_r(values.data(), " \n", &next_value);
  while (each_name != nullptr && each_value != nullptr) {
    if (std::strcmp(each_name, name) == 0) {
      *counter = std::strtoull(each_value, nullptr, 10);
      return true;
    }
    each_name = strtok_r(nullptr, " \n", &next_name);
    each_value = strtok_r(nullptr, " \n", &next_value);
  }
  return false;
}

bool starts_with(const snmp_line& line, const char* protocol) {
  return std::strncmp(line.data(), protocol, std::strlen(protocol)) == 0;
}

// The socket's own count holds more than what a full buffer cost: over UDP what a filter refused or a checksum spoiled,
// which the host's count leaves out; in an echo test, at a raw socket, frames that were not for this test.
std::uint64_t cost_of_full_buffer(std::uint64_t dropped, const test_settings* settings, const test_stats* stats,
                                  const host_counters* before, const host_counters* now) {
  if (settings->udp != 0 && now->known) dropped = std::min(dropped, now->full_buffers - before->full_buffers);
  if (is_echo_mode(settings)) dropped = std::min(dropped, stats->tx_packets - stats->rx_packets);
  return dropped;
}

void report_full_receive_buffer(const test_settings* settings, const run_state* run, const test_stats* stats,
                                const host_counters* before, const host_counters* now) {
  std::array<std::uint32_t, SK_MEMINFO_VARS> figures = {};
  socklen_t length = sizeof figures;
  if (settings->tcp != 0 || settings->ignore_responses != 0) return;
  if (getsockopt(run->data_socket, SOL_SOCKET, SO_MEMINFO, figures.data(), &length) != 0) return;
  const std::uint64_t dropped = cost_of_full_buffer(figures[SK_MEMINFO_DROPS], settings, stats, before, now);
  if (dropped == 0) return;
  std::fprintf(stderr, "Note: %d datagrams were dropped by this host's receive buffer (%d bytes)\n", low32(dropped),
               low32(figures[SK_MEMINFO_RCVBUF]));
}

void report_discarded_packets(const host_counters* before, const host_counters* now) {
  if (!now->known || now->discarded_packets == before->discarded_packets) return;
  std::fprintf(stderr, "Note: this host discarded at least %d outgoing packets during the test\n",
               low32(now->discarded_packets - before->discarded_packets));
}

}  // namespace

host_counters read_host_counters() {
  host_counters counters = {};
  std::FILE* file = std::fopen("/proc/net/snmp", "re");
  if (file == nullptr) return counters;
  bool discarded_known = false;
  bool full_known = false;
  snmp_line names = {};
  snmp_line values = {};
  while (std::fgets(names.data(), names.size(), file) != nullptr &&
         std::fgets(values.data(), values.size(), file) != nullptr) {
    if (starts_with(names, "Ip:")) {
      discarded_known = find_counter(names, values, "OutDiscards", &counters.discarded_packets);
    } else if (starts_with(names, "Udp:")) {
      full_known = find_counter(names, values, "RcvbufErrors", &counters.full_buffers);
    }
  }
  std::fclose(file);
  counters.known = discarded_known && full_known;
  return counters;
}

void report_host_losses(const test_settings* settings, const run_state* run, const test_stats* stats,
                        const host_counters* before) {
  host_counters now = read_host_counters();
  now.known = now.known && before->known;
  report_full_receive_buffer(settings, run, stats, before, &now);
  report_discarded_packets(before, &now);
}
