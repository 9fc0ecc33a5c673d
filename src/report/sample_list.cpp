#include "report/sample_list.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/cleanup_exit.h"

namespace {

constexpr std::uint32_t first_capacity = 512;
constexpr std::uint64_t histogram_bin = 1000;

[[noreturn]] void end_without_room() {
  std::fprintf(stderr, "ERROR: Cannot allocate sample list.\n");
  cleanup_exit(1);
}

void grow(sample_list* list) {
  const std::uint64_t capacity = list->capacity == 0 ? first_capacity : std::uint64_t{list->capacity} * 2;
  if (capacity > UINT32_MAX) end_without_room();
  void* larger = std::realloc(list->samples, static_cast<std::size_t>(capacity) * sizeof *list->samples);
  if (larger == nullptr) end_without_room();
  list->samples = static_cast<std::uint32_t*>(larger);
  list->capacity = static_cast<std::uint32_t>(capacity);
}

}  // namespace

sample_list bandwidth_samples = {.samples = nullptr, .count = 0, .capacity = 0, .ascending = 0};
sample_list buffer_samples = {.samples = nullptr, .count = 0, .capacity = 0, .ascending = 1};

int compare_samples(std::uint32_t a, std::uint32_t b) {
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

// Sorted as it grows: one sample comes with each batch, whose line then looks up as many as fourteen.
void sample_list_add(sample_list* list, std::uint32_t value) {
  if (list->count == list->capacity) grow(list);
  std::uint32_t* end = list->samples + list->count;
  std::uint32_t* place = std::upper_bound(list->samples, end, value,
                                          [](std::uint32_t a, std::uint32_t b) { return compare_samples(a, b) < 0; });
  std::memmove(place + 1, place, static_cast<std::size_t>(end - place) * sizeof *place);
  *place = value;
  ++list->count;
}

std::uint32_t sample_list_percentile(const sample_list* list, double fraction) {
  if (list->capacity == 0 || list->count == 0) return 0;
  const auto index = static_cast<std::uint32_t>(list->count * fraction);
  const std::uint32_t in_read_order = std::min(index, list->count - 1);
  return list->samples[list->ascending != 0 ? in_read_order : list->count - 1 - in_read_order];
}

// Thresholds are 64-bit, so that the one above a sample near 2^32 ends the walk.
void sample_list_write_histogram(const sample_list* list, std::FILE* stream, char separator) {
  if (list == nullptr || list->samples == nullptr || list->count == 0) return;
  const std::uint32_t largest = list->samples[list->count - 1];
  std::uint32_t next = 0;
  for (std::uint64_t threshold = 0;; threshold += histogram_bin) {
    const std::uint32_t first = next;
    while (next < list->count && list->samples[next] < threshold) ++next;
    std::fprintf(stream, "%d%c", static_cast<int>(next - first), separator);
    if (threshold > largest) return;
  }
}
