#include "report/summary.h"

#include <cstdint>
#include <cstdio>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/units.h"

namespace {

double count_as_double(std::uint64_t counter) {
  return static_cast<double>(static_cast<std::int64_t>(counter));
}

// A clock set back during the test can leave no time at all; then there is no rate to tell.
double per_second(std::uint64_t counter, double seconds) {
  return seconds > 0.0 ? count_as_double(counter) / seconds : 0.0;
}

void print_counts_and_rates(const test_settings* settings, const test_stats* stats) {
  const double seconds = usec_to_seconds(usec_between(stats->start_time, stats->end_time));
  std::fprintf(stdout, "In %9.6fs, %d tx pkts, %d rx pkts, %d missing, %d invalid\n%9.3f tx/s, %9.3f rx/s\n", seconds,
               low32(stats->tx_packets), low32(stats->rx_packets), low32(stats->tx_packets - stats->rx_packets),
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

void print_test_summary(const test_settings* settings, const test_stats* stats) {
  if (settings->total_requests > 1) print_counts_and_rates(settings, stats);
  if (stats->rx_packets != 0) print_latencies(stats);
}
