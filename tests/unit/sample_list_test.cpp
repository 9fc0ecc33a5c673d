#include "report/sample_list.h"

#include "support/expect.h"

static std::string histogram_of(const list& values) {
  sample_list samples = {};
  for (const std::int64_t value : values) sample_list_add(&samples, static_cast<std::uint32_t>(value));
  const std::string text = said([&] { sample_list_write_histogram(&samples, stdout, ','); });
  std::free(samples.samples);
  return text;
}

TEST(SampleList, GrowsSortedAndIsReadFromEitherEnd) {
  sample_list samples = {};
  EXPECT_EQ(sample_list_percentile(&samples, 0.5), 0U);
  for (std::uint32_t i = 0; i < 2000; ++i) sample_list_add(&samples, i * 7919 % 1000 + 4294966296);  // each one twice
  for (std::uint32_t i = 0; i < 2000; ++i) {
    samples.ascending = 1;
    EXPECT_EQ(sample_list_percentile(&samples, i / 2000.0), 4294966296 + i / 2) << i;
    samples.ascending = 0;
    EXPECT_EQ(sample_list_percentile(&samples, i / 2000.0), 4294967295 - i / 2) << i;
  }
  EXPECT_EQ(sample_list_percentile(&samples, 1.0), 4294966296);
  std::free(samples.samples);
}

TEST(SampleList, HistogramCountsEverySampleOnce) {
  EXPECT_EQ(histogram_of({0, 999}), "0,2,");
  EXPECT_EQ(histogram_of({2500, 500, 1600, 1500, 1000}), "0,1,3,1,");
  const std::string last = histogram_of({5, 4294967295, 4294967000, 4294966999});  // the bin that 2^32 cuts short
  EXPECT_EQ(last.substr(0, 6) + last.substr(last.size() - 6), "0,1,0,0,1,2,");
}
