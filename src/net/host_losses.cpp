#include "net/host_losses.h"

#include <fcntl.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <system_error>

#include "base/run_records.h"
#include "base/settings.h"

namespace {

using snmp_buffer = std::array<char, 4096>;  // the file has some 1500 bytes

// The text of the file; empty when it cannot be read.
std::string_view read_snmp(snmp_buffer* buffer) {
  const int file = open("/proc/net/snmp", O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  const ssize_t length = read(file, buffer->data(), buffer->size());
  close(file);
  return {buffer->data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

// Takes what stands before `end` from the front of the text, and `end` with it.
std::string_view take_until(char end, std::string_view* text) {
  const std::string_view taken(text->data(), std::min(text->find(end), text->size()));
  text->remove_prefix(std::min(taken.size() + 1, text->size()));
  return taken;
}

// Two lines stand for a protocol: the names of its counters, then their values. Sets *counter to the value of `name`;
// false when it is not there.
bool find_counter(std::string_view text, std::string_view protocol, std::string_view name, std::uint64_t* counter) {
  while (!text.empty()) {
    std::string_view names = take_until('\n', &text);
    std::string_view values = take_until('\n', &text);
    if (take_until(' ', &names) != protocol) continue;
    take_until(' ', &values);
    while (!names.empty()) {
      const std::string_view each = take_until(' ', &names);
      const std::string_view value = take_until(' ', &values);
      if (each == name) return std::from_chars(value.data(), value.data() + value.size(), *counter).ec == std::errc();
    }
  }
  return false;
}

// The socket's own count holds more than what a full buffer cost: over UDP what a filter refused or a checksum spoiled,
// which the host's count leaves out; in an echo test, at a raw socket, frames that were not for this test.
std::uint64_t cost_of_full_buffer(std::uint64_t dropped, const test_settings* settings, const test_stats* stats,
                                  const host_counters* before, const host_counters* now) {
  if (uses_udp(settings) && now->known) dropped = std::min(dropped, now->full_buffers - before->full_buffers);
  if (is_echo_mode(settings)) dropped = std::min(dropped, stats->tx_packets - stats->rx_packets);
  return dropped;
}

void add_full_receive_buffer(const test_settings* settings, const run_state* run, const test_stats* stats,
                             const host_counters* before, const host_counters* now, host_losses* losses) {
  std::array<std::uint32_t, SK_MEMINFO_VARS> figures = {};
  socklen_t length = sizeof figures;
  if (uses_tcp(settings) || settings->ignore_responses != 0) return;
  if (getsockopt(run->data_socket, SOL_SOCKET, SO_MEMINFO, figures.data(), &length) != 0) return;
  losses->dropped_datagrams = cost_of_full_buffer(figures[SK_MEMINFO_DROPS], settings, stats, before, now);
  losses->buffer_bytes = figures[SK_MEMINFO_RCVBUF];
}

}  // namespace

host_counters read_host_counters() {
  host_counters counters = {};
  snmp_buffer buffer;
  const std::string_view text = read_snmp(&buffer);
  counters.known = find_counter(text, "Ip:", "OutDiscards", &counters.discarded_packets) &&
                   find_counter(text, "Udp:", "RcvbufErrors", &counters.full_buffers);
  return counters;
}

host_losses losses_since(const host_counters* before, const test_settings* settings, const run_state* run,
                         const test_stats* stats) {
  host_counters now = read_host_counters();
  now.known = now.known && before->known;
  host_losses losses = {};
  add_full_receive_buffer(settings, run, stats, before, &now, &losses);
  if (now.known) losses.discarded_packets = now.discarded_packets - before->discarded_packets;
  return losses;
}
