#include "report/summary.h"

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
  if (span_usec <= 0.0) return {0.0, 0.0};
  return {static_cast<double>(bytes) * bits_per_byte / span_usec,
          static_cast<double>(frames) * usec_per_second / span_usec};
}

struct packet_counts {
  std::uint64_t sent;
  std::uint64_t received;
  std::uint64_t lost;
};

packet_counts counts_so_far(const test_settings* settings, const run_state* run, const test_stats* stats) {
  if (!is_commander(settings)) return {stats->tx_packets, stats->rx_packets, stats->lost_packets};
  const std::uint64_t sent = static_cast<std::uint64_t>(run->batch) * settings->remote_echoes;
  const std::uint64_t lost = stats->lost_packets + stats->lost_in_bad_samples;
  return {sent, sent - lost, lost};
}

double count_as_double(std::uint64_t counter) {
  return static_cast<double>(static_cast<std::int64_t>(counter));
}

// A test of no time has no rate to tell.
double per_second(std::uint64_t counter, double seconds) {
  return seconds > 0.0 ? count_as_double(counter) / seconds : 0.0;
}

void print_counts_and_rates(const test_settings* settings, const test_stats* stats) {
  const auto sent = static_cast<std::int64_t>(stats->tx_packets);
  const auto received = static_cast<std::int64_t>(stats->rx_packets);
  const double seconds = usec_to_seconds(usec_between(stats->start_time, stats->end_time));
  std::fprintf(stdout, "In %9.6fs, %d tx pkts, %d rx pkts, %d missing, %d invalid\n%9.3f tx/s, %9.3f rx/s\n", seconds,
               low32(stats->tx_packets), low32(stats->rx_packets), count_as_int(sent - received),
               low32(stats->bad_samples), per_second(stats->tx_packets, seconds),
               per_second(stats->rx_packets, seconds));
  const double bytes_per_second = per_second(stats->tx_packets + stats->rx_packets, seconds) * settings->payload_length;
  std::fprintf(stdout, "IP data rate %9.3fKB/s, %9.3fKb/s\n", bytes_per_second / kilo,
               bytes_per_second * bits_per_byte / kilo);
}

void print_latencies(const test_stats* stats) {
  const std::int64_t mean_usec = stats->latency_sum / static_cast<std::int64_t>(stats->rx_packets);
  std::fprintf(stdout, "Min = %9.6f, Max = %9.6f, Avg = %9.6f, \n", usec_to_seconds(stats->latency_min),
               usec_to_seconds(stats->latency_max), usec_to_seconds(mean_usec));
  std::fprintf(stdout, "\n");
}

}  // namespace

void print_running_bitrate(const test_settings* settings, const run_state* run, const test_stats* stats) {
  if (!speaks(settings)) return;
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
      static_cast<double>(stats->lost_packets) / static_cast<double>(stats->tx_packets) * percent);
}

void print_progress(const test_settings* settings, const run_state* run, const test_stats* stats) {
  const packet_counts so_far = counts_so_far(settings, run, stats);
  const double lost_percent =
      so_far.sent == 0 ? 0.0 : static_cast<double>(so_far.lost) * percent / static_cast<double>(so_far.sent);
  std::fprintf(stderr, "So far: %d sent, %d received, %d lost, %.2f%% lost\n", low32(so_far.sent),
               low32(so_far.received), low32(so_far.lost), lost_percent);
}

void print_test_summary(const test_settings* settings, const test_stats* stats) {
  if (settings->total_requests > 1) print_counts_and_rates(settings, stats);
  if (stats->rx_packets != 0) print_latencies(stats);
}

void print_host_losses(const host_losses* losses) {
  if (losses->dropped_datagrams != 0) {
    std::fprintf(stderr, "Note: %d datagrams were dropped by this host's receive buffer (%d bytes)\n",
                 low32(losses->dropped_datagrams), low32(losses->buffer_bytes));
  }
  if (losses->discarded_packets != 0) {
    std::fprintf(stderr, "Note: this host discarded at least %d outgoing packets during the test\n",
                 low32(losses->discarded_packets));
  }
}
