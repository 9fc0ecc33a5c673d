#include "report/results_files.h"

#include <filesystem>
#include <fstream>

#include "support/expect.h"

TEST(ResultsFiles, HeaderAndRowOfAHundredBatches) {
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
  EXPECT_EQ(said([&] { write_results_files(&b.settings, &b.stats); }), "Test complete! Total test time:   12.346s\n");
  const std::string row = "\n5.2," + name + ",tcp,3,5,-2147483648,203,65536,0,7,  12.346s,";
  const std::pair<std::string, std::vector<std::string>> tables[] = {
      {name, {row, ",Tag, 0.0%, 1.0%,", ",99.0%,99.1%,", ",100.0%,\n", ",night,100.0,99.0,", ",91.0,90.0,90.0,89.0,"}},
      {"HISTOGRAM_" + name, {row, ",Tag,1,2,", ",100,\n", ",night,0,0,1,1,1,"}}};
  for (const auto& [file, parts] : tables) {
    std::ifstream stream(file);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    for (const std::string& part : parts) EXPECT_NE(text.find(part), std::string::npos) << text;
    std::remove(file.c_str());
  }
}
