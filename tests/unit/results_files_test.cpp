#include "report/results_files.h"

#include <filesystem>
#include <fstream>

#include "support/expect.h"

// The fields of line `number` of a file.
static std::vector<std::string> fields_of(const std::string& name, int number) {
  std::ifstream file(name);
  std::string line;
  while (number-- >= 0) std::getline(file, line);
  std::istringstream words(line);
  std::vector<std::string> fields;
  for (std::string field; std::getline(words, field, ',');) fields.push_back(field);
  return fields;
}

TEST(ResultsFiles, HeaderAndRowOfAHundredBatches) {
  setenv("TZ", "UTC", 1);
  std::filesystem::current_path(testing::TempDir());
  const std::string name = "vorn_results_" + std::to_string(getpid());
  bench b("-c -p -E65536 -S60 -d7 -Fnight -f" + name);
  for (std::uint32_t i = 1; i <= 100; ++i) sample_list_add(&bandwidth_samples, i * 1000);
  b.run.batch = 203;
  current_run_state = &b.run;
  b.stats.bad_samples = 3;
  b.stats.lost_packets = 0x100000005;
  b.stats.lost_in_bad_samples = 0x80000000;
  world.now += 12345678;
  for (const char* line : {"Test complete! Total test time:   12.346s\n", ""}) {  // the second call does nothing
    EXPECT_EQ(said([&] { write_results_files(&b.settings, &b.stats); }), line);
  }
  using texts = std::vector<std::string>;
  const texts common = {"5.2",  name,    "tcp", "3", "5",         "-2147483648",
                        "203",  "65536", "0",   "7", "  12.346s", "Tue Nov 14 22:13:32 2023",
                        "night"};
  const texts row = fields_of(name, 1);
  const texts histogram = fields_of("HISTOGRAM_" + name, 1);
  for (const texts& each : {row, histogram}) EXPECT_EQ(texts(each.begin(), each.begin() + 13), common);
  const texts header = fields_of(name, 0);
  EXPECT_EQ(numbers(header.size(), row.size(), histogram.size()), (list{123, 123, 115}));
  EXPECT_EQ(header[13 + 11] + row[13 + 11] + row[13 + 12] + header[122] + row[122], "11.0%90.089.0100.0% 1.0");
  EXPECT_EQ(fields_of("HISTOGRAM_" + name, 0).at(112) + histogram[13] + histogram[14] + histogram[114], "100001");
  for (const std::string& each : {name, "HISTOGRAM_" + name}) std::remove(each.c_str());
}
