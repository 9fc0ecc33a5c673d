#include "report/sample_list.h"

#include <algorithm>
#include <random>

#include "support/expect.h"

struct filled_list : sample_list {
  explicit filled_list(const list& values, std::uint32_t from_smallest = 0)
      : sample_list{nullptr, 0, 0, from_smallest} {
    for (const std::int64_t value : values) sample_list_add(this, static_cast<std::uint32_t>(value));
  }
  ~filled_list() {
    std::free(samples);
  }
};

TEST(SampleList, StaysSortedAndGrowsByDoubling) {
  std::mt19937 random(1);
  filled_list filled({});
  list sorted;
  for (int count = 1; count <= 1025; ++count) {
    sorted.push_back(static_cast<std::uint32_t>(random() % 3 == 0 ? random() % 20 : random()));
    sample_list_add(&filled, static_cast<std::uint32_t>(sorted.back()));
    EXPECT_EQ(numbers(filled.count, filled.capacity), numbers(count, count <= 512 ? 512 : count <= 1024 ? 1024 : 2048));
  }
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(list(filled.samples, filled.samples + filled.count), sorted);
  EXPECT_EQ(numbers(compare_samples(0, ~0U), compare_samples(~0U, 0), compare_samples(7, 7)), (list{-1, 1, 0}));
}

TEST(SampleList, PercentilesFromEitherEnd) {
  const filled_list from_largest({30, 10, 40, 20}, 0);
  const filled_list from_smallest({30, 10, 40, 20}, 1);
  const filled_list single({0xFFFFFFFF});
  const filled_list none({});
  const std::pair<double, list> cases[] = {{0.0, {40, 10}},  {0.24, {40, 10}},  {0.25, {30, 20}}, {0.5, {20, 30}},
                                           {0.75, {10, 40}}, {0.999, {10, 40}}, {1.0, {10, 40}}};
  for (const auto& [fraction, expected] : cases) {
    const auto at = [fraction = fraction](const sample_list& from) { return sample_list_percentile(&from, fraction); };
    EXPECT_EQ(numbers(at(from_largest), at(from_smallest)), expected) << fraction;
    EXPECT_EQ(numbers(at(single), at(none)), (list{0xFFFFFFFF, 0}));
  }
}

TEST(SampleList, HistogramCountsEverySampleOnce) {
  const auto histogram_of = [](const list& values) {
    const filled_list filled(values);
    return said([&] { sample_list_write_histogram(&filled, stdout, ','); });
  };
  const std::pair<list, const char*> cases[] = {
      {{}, ""}, {{0}, "0,1,"}, {{999}, "0,1,"}, {{1000}, "0,0,1,"}, {{2500, 500, 1600, 1500}, "0,1,2,1,"}};
  for (const auto& [values, counts] : cases) EXPECT_EQ(histogram_of(values), counts);
  const std::string last = histogram_of({5, 4294967295, 4294967000, 4294966999});  // the bin that 2^32 cuts short
  EXPECT_EQ(std::count(last.begin(), last.end(), ','), 4294967 + 2);
  EXPECT_EQ(last.substr(0, 6) + last.substr(last.size() - 6), "0,1,0,0,1,2,");
}
