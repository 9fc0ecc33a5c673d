#include "report/progress_line.h"

#include <cstdint>
#include <cstdio>

#include "base/run_records.h"
#include "base/settings.h"

namespace {

struct packet_counts {
  std::uint64_t sent;
  std::uint64_t received;
  std::uint64_t lost;
};

packet_counts counts_so_far(const test_settings* settings, const run_state* run, const test_stats* stats) {
  if (settings->command_mode == 0) return {stats->tx_packets, stats->rx_packets, stats->lost_packets};
  const std::uint64_t sent = static_cast<std::uint64_t>(run->batch) * settings->remote_echoes;
  const std::uint64_t lost = stats->lost_packets + stats->lost_in_bad_samples;
  return {sent, sent - lost, lost};
}

}  // namespace

void print_progress(const test_settings* settings, const run_state* run, const test_stats* stats) {
  const packet_counts so_far = counts_so_far(settings, run, stats);
  const double percent =
      so_far.sent == 0 ? 0.0 : static_cast<double>(so_far.lost) * 100.0 / static_cast<double>(so_far.sent);
  std::fprintf(stderr, "So far: %d sent, %d received, %d lost, %.2f%% lost\n", low32(so_far.sent),
               low32(so_far.received), low32(so_far.lost), percent);
}
