// Distributions: a growable, always sorted list of samples with percentiles and a histogram.
#pragma once

#include <cstdint>
#include <cstdio>

// A piece of a list.
struct sample_block {
  std::uint32_t* samples;  // owned; `count` values in ascending order
  std::uint32_t count;     // samples held, at least 1
  std::uint32_t rank;      // of its first sample: how many the blocks before it hold
};

struct sample_list {
  sample_block* blocks;          // owned; in ascending order; null until the first sample
  std::uint32_t block_count;     // blocks in use
  std::uint32_t block_capacity;  // entries allocated in `blocks`
  std::uint32_t count;           // samples held
  std::uint32_t ascending;       // flag: percentiles are counted from the smallest sample; 0 = from the largest
};

// One receive rate per good batch, in kbit/s, read from the best batch downwards.
extern sample_list bandwidth_samples;

// One buffer consumption per good batch, in usec, read from the smallest upwards.
extern sample_list buffer_samples;

// The order of two samples: -1 when a < b, 1 when a > b, 0 when equal.
[[nodiscard]] int compare_samples(std::uint32_t a, std::uint32_t b);

// Adds a sample at its place. A list that cannot grow is fatal: one line on standard error, then cleanup_exit(1).
void sample_list_add(sample_list* list, std::uint32_t value);

// The sample at `fraction` (0.0 to 1.0) of the list in its read order; 0 when it holds none.
[[nodiscard]] std::uint32_t sample_list_percentile(const sample_list* list, double fraction);

// Writes the counts of samples below 0, from 0 to 999, from 1000 to 1999 and so on, up to the bin of the largest
// sample, each followed by `separator`; nothing for a list without samples. The caller ends the line.
void sample_list_write_histogram(const sample_list* list, std::FILE* stream, char separator);
