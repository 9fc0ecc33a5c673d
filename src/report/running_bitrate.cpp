#include "report/running_bitrate.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/units.h"

namespace {

struct window_rates {
  double megabits_per_second;
  double frames_per_second;
};

// The first answer of the window only starts its span; every later one adds its request and itself.
window_rates rates_of_window(const test_settings* settings, const run_state* run) {
  const std::uint32_t length = std::min({settings->average_window, run->oldest_outstanding, run->packet_table_size});
  std::uint64_t bytes = 0;
  std::uint64_t frames = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  for (std::uint32_t back = length; back > 0; --back) {
    const packet_slot* slot = slot_of(run, run->oldest_outstanding - back);
    if (slot->responder == 0) continue;
    if (first == 0) {
      first = slot->rx_time;
    } else {
      bytes += 2ULL * run->payload_length;
      frames += 2;
    }
    last = slot->rx_time;
  }
  const auto span_usec = static_cast<double>(usec_between(first, last));
  if (span_usec == 0.0) return {0.0, 0.0};
  return {static_cast<double>(bytes) * bits_per_byte / span_usec,
          static_cast<double>(frames) * usec_per_second / span_usec};
}

}  // namespace

void print_running_bitrate(const test_settings* settings, const run_state* run, const test_stats* stats) {
  if (settings->remote_run != 0) return;
  const window_rates rates = rates_of_window(settings, run);
  if (stats->tx_packets == 0) {
    std::fprintf(stdout, "Running Bitrate: %7.3f Megabits/s, %6.1f fps\n", rates.megabits_per_second,
                 rates.frames_per_second);
    return;
  }
  std::fprintf(
      stdout,
      "Running Bitrate: %7.3f Megabits/s, %6.1f fps, %6d tx, %6d rx, %6d missing, %6d late, %6d lost, %5.2f%% lost\n",
      rates.megabits_per_second, rates.frames_per_second, low32(stats->tx_packets), low32(stats->rx_packets),
      low32(stats->lost_packets - stats->late_responses), low32(stats->late_responses), low32(stats->lost_packets),
      static_cast<double>(stats->lost_packets) / static_cast<double>(stats->tx_packets) * 100.0);
}
