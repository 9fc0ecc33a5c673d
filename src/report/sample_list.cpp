#include "report/sample_list.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "base/cleanup_exit.h"

// One sample comes with each batch, whose line then looks up as many as fourteen, and the millionth batch should cost
// what the first did. So the list is kept in blocks: a sample moves those behind it in its block only, and a look-up
// finds the block by its rank.
namespace {

constexpr std::uint32_t block_samples = 2048;                   // 8 kB
constexpr std::uint32_t sharing_limit = block_samples / 4 * 3;  // a block that holds no more takes some of a neighbour
constexpr std::uint32_t first_block_capacity = 32;
constexpr std::uint64_t histogram_bin = 1000;

[[noreturn]] void end_without_room() {
  std::fprintf(stderr, "ERROR: Cannot allocate sample list.\n");
  cleanup_exit(1);
}

void grow(sample_list* list) {
  const std::uint32_t capacity = list->block_capacity == 0 ? first_block_capacity : list->block_capacity * 2;
  void* larger = std::realloc(list->blocks, capacity * sizeof *list->blocks);
  if (larger == nullptr) end_without_room();
  list->blocks = static_cast<sample_block*>(larger);
  list->block_capacity = capacity;
}

void insert_empty_block(sample_list* list, std::uint32_t index) {
  if (list->block_count == list->block_capacity) grow(list);
  void* samples = std::malloc(block_samples * sizeof(std::uint32_t));
  if (samples == nullptr) end_without_room();
  sample_block* place = list->blocks + index;
  std::memmove(place + 1, place, (list->block_count - index) * sizeof *place);
  *place = {.samples = static_cast<std::uint32_t*>(samples), .count = 0, .rank = 0};
  ++list->block_count;
}

// Has a block and the one behind it hold as many samples as each other.
void even_out(sample_block* first) {
  sample_block* second = first + 1;
  std::array<std::uint32_t, std::size_t{2} * block_samples> both;
  std::uint32_t* middle = std::copy_n(first->samples, first->count, both.data());
  std::uint32_t* end = std::copy_n(second->samples, second->count, middle);
  middle = both.data() + (end - both.data()) / 2;
  std::copy(both.data(), middle, first->samples);
  std::copy(middle, end, second->samples);
  first->count = static_cast<std::uint32_t>(middle - both.data());
  second->count = static_cast<std::uint32_t>(end - middle);
  second->rank = first->rank + first->count;
}

bool can_take_some(const sample_list* list, std::uint32_t index) {
  return index < list->block_count && list->blocks[index].count <= sharing_limit;
}

// A full block gives to a neighbour before it is split: where samples come in order, or many times the same, the halves
// of split blocks would never fill up.
void make_room(sample_list* list, std::uint32_t full) {
  if (full != 0 && can_take_some(list, full - 1)) {
    even_out(&list->blocks[full - 1]);
    return;
  }
  if (!can_take_some(list, full + 1)) insert_empty_block(list, full + 1);
  even_out(&list->blocks[full]);
}

// The last block that begins at or below `value`, else the first.
sample_block* block_of(const sample_list* list, std::uint32_t value) {
  sample_block* second = list->blocks + 1;
  return std::upper_bound(second, list->blocks + list->block_count, value,
                          [](std::uint32_t wanted, const sample_block& block) {
                            return compare_samples(wanted, block.samples[0]) < 0;
                          }) -
         1;
}

std::uint32_t* place_behind(const sample_block* block, std::uint32_t value) {
  return std::upper_bound(block->samples, block->samples + block->count, value,
                          [](std::uint32_t a, std::uint32_t b) { return compare_samples(a, b) < 0; });
}

// How many samples are not above `value`.
std::uint32_t samples_up_to(const sample_list* list, std::uint32_t value) {
  const sample_block* block = block_of(list, value);
  return block->rank + static_cast<std::uint32_t>(place_behind(block, value) - block->samples);
}

std::uint32_t sample_at(const sample_list* list, std::uint32_t rank) {
  const sample_block* block =
      std::upper_bound(list->blocks, list->blocks + list->block_count, rank,
                       [](std::uint32_t wanted, const sample_block& each) { return wanted < each.rank; }) -
      1;
  return block->samples[rank - block->rank];
}

}  // namespace

sample_list bandwidth_samples = {.blocks = nullptr, .block_count = 0, .block_capacity = 0, .count = 0, .ascending = 0};
sample_list buffer_samples = {.blocks = nullptr, .block_count = 0, .block_capacity = 0, .count = 0, .ascending = 1};

int compare_samples(std::uint32_t a, std::uint32_t b) {
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

void sample_list_add(sample_list* list, std::uint32_t value) {
  if (list->count == UINT32_MAX) end_without_room();
  if (list->block_count == 0) insert_empty_block(list, 0);
  sample_block* block = block_of(list, value);
  if (block->count == block_samples) {
    make_room(list, static_cast<std::uint32_t>(block - list->blocks));
    block = block_of(list, value);
  }
  std::uint32_t* place = place_behind(block, value);
  std::memmove(place + 1, place, static_cast<std::size_t>(block->samples + block->count - place) * sizeof *place);
  *place = value;
  ++block->count;
  ++list->count;
  for (++block; block != list->blocks + list->block_count; ++block) ++block->rank;
}

std::uint32_t sample_list_percentile(const sample_list* list, double fraction) {
  if (list->count == 0) return 0;
  const auto index = static_cast<std::uint32_t>(list->count * fraction);
  const std::uint32_t in_read_order = std::min(index, list->count - 1);
  return sample_at(list, list->ascending != 0 ? in_read_order : list->count - 1 - in_read_order);
}

void sample_list_write_histogram(const sample_list* list, std::FILE* stream, char separator) {
  if (list == nullptr || list->count == 0) return;
  std::fprintf(stream, "%d%c", 0, separator);  // none is below 0
  std::uint32_t counted = 0;
  for (std::uint64_t last = histogram_bin - 1; counted != list->count; last += histogram_bin) {
    const std::uint32_t up_to =
        samples_up_to(list, static_cast<std::uint32_t>(std::min<std::uint64_t>(last, UINT32_MAX)));
    std::fprintf(stream, "%d%c", static_cast<int>(up_to - counted), separator);
    counted = up_to;
  }
}
