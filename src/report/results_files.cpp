#include "report/results_files.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/units.h"
#include "base/version.h"
#include "report/results_table.h"
#include "report/sample_list.h"

const char* results_filename = nullptr;
const char* results_tag = nullptr;
std::FILE* results_file = nullptr;
int results_file_is_new = 0;

namespace {

constexpr std::array<const char*, 13> common_headers = {
    "Vorn Version",
    "Filename",
    "Protocol",
    "Bad Samples",
    "Packets Lost",
    "Packets Lost(Bad Samples)",
    "Batches",
    "Batch Size",
    "Frame IP Length",
    "usecs between frames",
    "Test Time",
    "Date",
    "Tag",
};
constexpr int histogram_labels = 100;
constexpr int longest_path = PATH_MAX;  // with its NUL; what is longer the kernel does not open

// What both rows begin with, besides the records.
struct row_context {
  const test_settings* settings;
  const test_stats* stats;
  std::int64_t test_usec;
  char date[32];  // as ctime(3) writes it, without its newline
  char separator;
};

// The fractions of the percentile columns: by 0.01 up to 0.99, then by 0.001 up to 1. The sums are not exact, and files
// written so far depend on the samples that they pick.
constexpr std::size_t percentile_columns = 110;

constexpr std::array<double, percentile_columns> percentile_fractions() {
  std::array<double, percentile_columns> fractions = {};
  std::size_t next = 0;
  double fraction = 0.0;
  while (fraction < 0.991) {
    fractions.at(next++) = fraction;
    fraction += 0.01;
  }
  fraction = 0.991;
  while (fraction < 1.001) {
    fractions.at(next++) = fraction;
    fraction += 0.001;
  }
  return fractions;
}

constexpr std::array<double, percentile_columns> results_percentiles = percentile_fractions();

void write_common_headers(std::FILE* row, char separator) {
  for (const char* header : common_headers) std::fprintf(row, "%s%c", header, separator);
}

const char* protocol_name(const test_settings* settings) {
  if (uses_udp(settings)) return "udp";
  return uses_tcp(settings) ? "tcp" : "icmp";
}

// A packet of another run can have moved the batch, to a number that is none.
std::int32_t batches_of_test(const row_context* context) {
  if (context->settings->duration_sec != 0) return count_as_int(low32(current_run_state->batch));
  return count_as_int(low32(context->settings->echo_count - context->stats->bad_samples));
}

void write_common_values(std::FILE* row, const row_context* context) {
  const test_settings* settings = context->settings;
  const test_stats* stats = context->stats;
  const char separator = context->separator;
  std::fprintf(row, "%d.%d%c", version_major, version_minor, separator);
  std::fprintf(row, "%s%c", results_filename, separator);
  std::fprintf(row, "%s%c", protocol_name(settings), separator);
  std::fprintf(row, "%d%c", low32(stats->bad_samples), separator);
  std::fprintf(row, "%d%c", count_as_int(static_cast<std::int64_t>(stats->lost_packets)), separator);
  std::fprintf(row, "%d%c", count_as_int(static_cast<std::int64_t>(stats->lost_in_bad_samples)), separator);
  std::fprintf(row, "%d%c", batches_of_test(context), separator);
  std::fprintf(row, "%d%c", low32(settings->remote_echoes), separator);
  std::fprintf(row, "%d%c", low32(settings->ip_length), separator);
  std::fprintf(row, "%d%c", low32(settings->delay_usec), separator);
  std::fprintf(row, "%8.3fs%c", usec_to_seconds(context->test_usec), separator);
  std::fprintf(row, "%s%c", context->date, separator);
  std::fprintf(row, "%s%c", results_tag != nullptr ? results_tag : "NULL", separator);
}

void write_results_header(std::FILE* row, const row_context* context) {
  write_common_headers(row, context->separator);
  for (const double fraction : results_percentiles) {
    std::fprintf(row, "%4.1f%%%c", fraction * 100.0, context->separator);
  }
  std::fprintf(row, "\n");
}

void write_results_row(std::FILE* row, const row_context* context) {
  write_common_values(row, context);
  for (const double fraction : results_percentiles) {
    const auto rate_kbps = static_cast<std::int32_t>(sample_list_percentile(&bandwidth_samples, fraction));
    std::fprintf(row, "%4.1f%c", rate_kbps / kilo, context->separator);
  }
  std::fprintf(row, "\n");
}

void write_histogram_header(std::FILE* row, const row_context* context) {
  write_common_headers(row, context->separator);
  for (int label = 1; label <= histogram_labels; ++label) std::fprintf(row, "%d%c", label, context->separator);
  std::fprintf(row, "\n");
}

void write_histogram_row(std::FILE* row, const row_context* context) {
  write_common_values(row, context);
  sample_list_write_histogram(&bandwidth_samples, row, context->separator);
  std::fprintf(row, "\n");
}

using row_writer = void (*)(std::FILE* row, const row_context* context);

// Rows are composed in memory, so that they reach the file whole or not at all.
bool append_rows(std::FILE* table, row_writer write_header, row_writer write_row, const row_context* context) {
  char* text = nullptr;
  std::size_t length = 0;
  std::FILE* rows = open_memstream(&text, &length);
  if (rows == nullptr) return false;
  if (write_header != nullptr) write_header(rows, context);
  write_row(rows, context);
  const bool complete = std::fclose(rows) == 0;
  const bool appended = complete && append_to_table(table, text, length);
  std::free(text);
  return appended;
}

void append_and_close(std::FILE* table, const char* name, int is_new, row_writer write_header, row_writer write_row,
                      const row_context* context) {
  if (!append_rows(table, is_new != 0 ? write_header : nullptr, write_row, context)) {
    std::fprintf(stderr, "Error: could not write results file %s\n", name);
  }
  close_results_table(table, is_new);
}

void append_to_results_file(const row_context* context) {
  if (results_file == nullptr) return;
  append_and_close(std::exchange(results_file, nullptr), results_filename, results_file_is_new, write_results_header,
                   write_results_row, context);
}

void append_to_histogram_file(const row_context* context) {
  std::array<char, longest_path> path = {};
  const int length = std::snprintf(path.data(), path.size(), "HISTOGRAM_%s", results_filename);
  int is_new = 0;
  std::FILE* table = length < longest_path ? open_results_table(path.data(), &is_new) : nullptr;
  if (table == nullptr) {
    std::fprintf(stderr, "Error: could not open histogram file %s\n", path.data());
    return;
  }
  append_and_close(table, path.data(), is_new, write_histogram_header, write_histogram_row, context);
}

char separator_for(const char* filename) {
  return filename != nullptr && std::string_view(filename).ends_with(".txt") ? '\t' : ',';
}

void note_date(row_context* context) {
  const std::time_t now = std::time(nullptr);
  const char* text = std::ctime(&now);
  std::snprintf(context->date, sizeof context->date, "%.24s", text != nullptr ? text : "");
}

}  // namespace

void write_results_files(const test_settings* settings, const test_stats* stats) {
  row_context context = {
      .settings = settings,
      .stats = stats,
      .test_usec = usec_between(stats->start_time, clock_now()),
      .date = {},
      .separator = separator_for(results_filename),
  };
  note_date(&context);
  std::fprintf(stdout, "Test complete! Total test time: %8.3fs\n", usec_to_seconds(context.test_usec));
  if (results_filename == nullptr) return;
  append_to_results_file(&context);
  append_to_histogram_file(&context);
}

void close_unused_results_file() {
  if (results_file == nullptr) return;
  close_results_table(std::exchange(results_file, nullptr), results_file_is_new);
}
