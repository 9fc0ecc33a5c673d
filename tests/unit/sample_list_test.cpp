#include "report/sample_list.h"

#include <algorithm>
#include <map>
#include <random>

#include "support/expect.h"

static sample_list list_of(const std::vector<std::uint32_t>& values) {
  sample_list samples = {};
  for (const std::uint32_t value : values) sample_list_add(&samples, value);
  return samples;
}

static std::string histogram_of(const std::vector<std::uint32_t>& values) {
  sample_list samples = list_of(values);
  const std::string text = said([&] { sample_list_write_histogram(&samples, stdout, ','); });
  empty(&samples);
  return text;
}

// Beside a plain sort; long enough for blocks that are split, evened out, full of one value and crossed by its run.
TEST(SampleList, IsReadFromEitherEndAsIfSortedAnew) {
  std::mt19937 generator(1);
  const auto random = [&generator] { return static_cast<std::uint32_t>(generator()); };
  const auto most = [&random](std::uint32_t value) { return random() % 8 != 0 ? value : random(); };
  const std::map<std::string, std::function<std::uint32_t(std::uint32_t)>> cases = {
      {"any", [&](std::uint32_t) { return random(); }},
      {"rising", [](std::uint32_t i) { return i; }},
      {"falling", [](std::uint32_t i) { return UINT32_MAX - i; }},
      {"one value", [&](std::uint32_t) { return most(1000000); }},
      {"the largest", [&](std::uint32_t) { return most(UINT32_MAX); }},
      {"few values", [&](std::uint32_t) { return most(UINT32_MAX - random() % 20); }},
      {"in turn from both ends", [](std::uint32_t i) { return i % 2 != 0 ? i : UINT32_MAX - i; }}};
  for (const auto& [name, value_of] : cases) {
    std::vector<std::uint32_t> plain;
    for (std::uint32_t i = 0; i < 20000; ++i) plain.push_back(value_of(i));
    sample_list samples = list_of(plain);
    std::sort(plain.begin(), plain.end());
    EXPECT_TRUE(samples_of(samples) == plain) << name;
    EXPECT_LT(samples.block_count, 20000 / 1300) << name;  // of 2048 samples: two lists take 12 bytes a batch
    for (std::uint32_t i = 0; i < 20000; i += 7) {
      samples.ascending = 1;
      ASSERT_EQ(sample_list_percentile(&samples, (i + 0.5) / 20000), plain[i]) << name << i;
      samples.ascending = 0;
      ASSERT_EQ(sample_list_percentile(&samples, (i + 0.5) / 20000), plain[19999 - i]) << name << i;
    }
    EXPECT_EQ(sample_list_percentile(&samples, 1.0), plain[0]) << name;
    empty(&samples);
  }
  const sample_list none = {};
  EXPECT_EQ(sample_list_percentile(&none, 0.5), 0U);
}

TEST(SampleList, HistogramCountsEverySampleOnce) {
  EXPECT_EQ(histogram_of({}), "");
  EXPECT_EQ(histogram_of({0, 999}), "0,2,");
  EXPECT_EQ(histogram_of({1000}), "0,0,1,");
  EXPECT_EQ(histogram_of({2500, 500, 1600, 1500, 1000}), "0,1,3,1,");
  const std::string last = histogram_of({5, 4294967295, 4294967000, 4294966999});  // the bin that 2^32 cuts short
  EXPECT_EQ(last.substr(0, 6) + last.substr(last.size() - 6), "0,1,0,0,1,2,");
  std::vector<std::uint32_t> values;
  std::vector<int> bins(51);
  for (std::uint32_t i = 0; i < 20000; ++i) {
    values.push_back(i % 3 != 0 ? i * 7919 % 50000 : 7000);
    ++bins[values.back() / 1000 + 1];
  }
  std::string plain;
  for (const int bin : bins) plain += std::to_string(bin) + ",";
  EXPECT_EQ(histogram_of(values), plain);
}
