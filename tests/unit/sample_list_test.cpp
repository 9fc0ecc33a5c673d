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

TEST(SampleList, StaysSortedWhileItGrows) {
  std::mt19937 random(1);
  list values;
  for (int i = 0; i < 1025; ++i) values.push_back(i % 3 == 0 ? i % 20 : static_cast<std::uint32_t>(random()));
  const filled_list filled(values);
  std::sort(values.begin(), values.end());
  EXPECT_EQ(list(filled.samples, filled.samples + filled.count), values);
}

TEST(SampleList, PercentilesFromEitherEnd) {
  const filled_list from_largest({30, 10, 40, 20}, 0);
  const filled_list from_smallest({30, 10, 40, 20}, 1);
  const filled_list none({});
  const std::pair<double, list> cases[] = {{0.0, {40, 10, 0}}, {0.24, {40, 10, 0}}, {0.25, {30, 20, 0}},
                                           {0.5, {20, 30, 0}}, {0.75, {10, 40, 0}}, {0.999, {10, 40, 0}},
                                           {1.0, {10, 40, 0}}};
  for (const auto& [fraction, expected] : cases) {
    const auto at = [fraction = fraction](const sample_list& from) { return sample_list_percentile(&from, fraction); };
    EXPECT_EQ(numbers(at(from_largest), at(from_smallest), at(none)), expected) << fraction;
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
