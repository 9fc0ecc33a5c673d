#include "report/batch_line.h"

#include <array>
#include <cstdint>
#include <cstdio>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/units.h"
#include "report/batch_judgement.h"
#include "report/sample_list.h"

namespace {

constexpr std::array<double, 7> display_percentiles = {0.0, 0.5, 0.9, 0.95, 0.98, 0.99, 0.999};
constexpr std::uint32_t batches_per_label_row = 50;

// Widths of the line parts that stand left of the labels' columns.
constexpr int short_part_width = 35;
constexpr int verbose_part_width = 105;  // beyond the short one
constexpr int consumption_width = 12;

constexpr int graph_width = 36;
constexpr int graph_kbps_per_position = 2000;
constexpr int graph_positions_per_digit = 5;

bool shows_figures(const test_settings* settings, const run_state* run) {
  return settings->quiet == 0 || run->batch == settings->total_requests;
}

void print_blanks(int count) {
  std::fprintf(stdout, "%*s", count, "");
}

void print_labels() {
  for (const double fraction : display_percentiles) std::fprintf(stdout, "%5.1f ", fraction * percent);
}

void print_rates(const sample_list* list) {
  for (const double fraction : display_percentiles) {
    const auto rate_kbps = static_cast<std::int32_t>(sample_list_percentile(list, fraction));
    std::fprintf(stdout, "%5.1f ", rate_kbps / kilo);
  }
}

void print_buffers(const sample_list* list) {
  for (const double fraction : display_percentiles) {
    std::fprintf(stdout, "%5.1f ", sample_list_percentile(list, fraction) / usec_per_msec);
  }
}

void print_label_row(const test_settings* settings, const run_state* run) {
  const bool any_columns = settings->show_buffers != 0 || settings->show_bandwidth != 0;
  if (any_columns && settings->verbose != 0) print_blanks(verbose_part_width);
  if (any_columns) print_blanks(short_part_width);
  if (settings->show_bandwidth != 0 && shows_figures(settings, run)) print_labels();
  print_blanks(consumption_width);
  if (settings->show_buffers != 0 && shows_figures(settings, run)) print_labels();
  if (any_columns) std::fprintf(stdout, "\n");
}

const char* batch_marker(const batch_judgement* batch) {
  return batch->bad ? "*" : " ";
}

void print_graph_position(int position, int marked) {
  if (position == marked) {
    std::fputc('X', stdout);
  } else if (position == 0 || position == graph_width - 1) {
    std::fputc('|', stdout);
  } else if (position % graph_positions_per_digit == 0) {
    std::fprintf(stdout, "%d", position / graph_positions_per_digit);
  } else {
    std::fputc(' ', stdout);
  }
}

// One row a batch: the rows form a vertical graph of the rate, marked every 10 Mbit/s.
void print_rate_graph(const run_state* run, const batch_judgement* batch) {
  std::fprintf(stdout, "%5d:%s", low32(run->batch), batch_marker(batch));
  const int marked = batch->rate_kbps / graph_kbps_per_position;
  for (int position = 0; position < graph_width; ++position) print_graph_position(position, marked);
}

void print_columns(const test_settings* settings, const test_stats* stats) {
  if (settings->show_bandwidth != 0) print_rates(&bandwidth_samples);
  std::fprintf(stdout, " %5.1f msec ", stats->buffer_consumption_usec / usec_per_msec);
  if (settings->show_buffers != 0) print_buffers(&buffer_samples);
}

double megabits_per_second(const run_state* run, const test_stats* stats, const batch_judgement* batch) {
  const auto intervals = static_cast<std::int64_t>(stats->rx_packets) - 1;
  return run->payload_length * static_cast<double>(intervals) * bits_per_byte / static_cast<double>(batch->span_usec);
}

void print_verbose_figures(const test_settings* settings, const run_state* run, const test_stats* stats,
                           const batch_judgement* batch) {
  const auto span_usec = static_cast<double>(batch->span_usec);
  const auto received = static_cast<double>(stats->rx_packets);
  std::fprintf(stdout, " %3d/%3d %6.2f%% lost, %3d late %7.1f rx/s, %5.1f Mbps D=%5.3f, m/M/a %7.3f/%7.3f/%7.3f, ",
               batch->lost, low32(settings->remote_echoes), batch->lost * percent / settings->remote_echoes,
               low32(stats->late_arrivals), received * usec_per_second / span_usec,
               megabits_per_second(run, stats, batch), usec_to_seconds(batch->span_usec),
               static_cast<double>(stats->latency_min) / usec_per_msec,
               static_cast<double>(stats->latency_max) / usec_per_msec, span_usec / (received * usec_per_msec));
  print_columns(settings, stats);
}

void print_short_figures(const test_settings* settings, const run_state* run, const test_stats* stats,
                         const batch_judgement* batch) {
  std::fprintf(stdout, "%5d:%s Pkts: %3d/%-3d  %5.1f mbps  ", low32(run->batch), batch_marker(batch),
               low32(settings->remote_echoes - static_cast<std::uint32_t>(batch->lost)), low32(settings->remote_echoes),
               megabits_per_second(run, stats, batch));
  print_columns(settings, stats);
  std::fprintf(stdout, "  Lost: %-5d  Bad Samples: %d", low32(stats->lost_packets), low32(stats->bad_samples));
}

void print_figures(const test_settings* settings, const run_state* run, const test_stats* stats,
                   const batch_judgement* batch) {
  if (stats->batch_last_seq == stats->batch_first_seq) {
    std::fprintf(stdout, "%5d:*** Rx %d, Lost %d", low32(run->batch), low32(stats->rx_packets), batch->lost);
  } else if (settings->verbose != 0) {
    print_verbose_figures(settings, run, stats, batch);
  } else {
    print_short_figures(settings, run, stats, batch);
  }
}

}  // namespace

void print_batch_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      const batch_judgement* batch) {
  if (run->batch % batches_per_label_row == 0) print_label_row(settings, run);
  if (settings->verbose != 0 && shows_figures(settings, run)) print_rate_graph(run, batch);
  if (shows_figures(settings, run)) print_figures(settings, run, stats, batch);
  std::fprintf(stdout, "\n");
}
