#include "report/results_files.h"

#include <filesystem>
#include <fstream>

#include "support/expect.h"

static const std::string completion = "Test complete! Total test time:   12.346s\n";

static std::string text_of(const std::string& name) {
  std::ifstream file(name);
  return {std::istreambuf_iterator<char>(file), {}};
}

static std::string repeated(const std::string& text, int count) {
  return count == 0 ? "" : text + repeated(text, count - 1);
}

static std::string header(bool histogram) {
  std::string row =
      "Vorn Version,Filename,Protocol,Bad Samples,Packets Lost,Packets Lost(Bad Samples),Batches,Batch Size,"
      "Frame IP Length,usecs between frames,Test Time,Date,Tag,";
  char label[16] = {};
  for (int tenths = 0; tenths <= 1000 && !histogram; tenths += tenths < 990 ? 10 : 1) {
    std::snprintf(label, sizeof label, "%4.1f%%,", tenths / 10.0);
    row += label;
  }
  for (int number = 1; number <= 100 && histogram; ++number) row += std::to_string(number) + ",";
  return row + "\n";
}

struct ResultsFiles : testing::Test {  // in a directory of their own
  ResultsFiles() {
    std::filesystem::create_directories(directory + "/sub");
    std::filesystem::current_path(directory);
    setenv("TZ", "UTC", 1);
  }
  ~ResultsFiles() override {
    std::filesystem::current_path("/");
    std::filesystem::remove_all(directory);
  }
  // One test of these arguments with these samples, from the parser to the rows.
  static std::string run(const std::string& arguments, const std::vector<std::uint32_t>& samples) {
    return said_by_child([&] {
      bench b("-c -E50 -e103 " + arguments);
      for (const std::uint32_t sample : samples) sample_list_add(&bandwidth_samples, sample);
      b.run.batch = 203;
      current_run_state = &b.run;
      b.stats.bad_samples = 3;
      b.stats.lost_packets = 0x100000005;
      b.stats.lost_in_bad_samples = 0x80000000;
      world.now += 12345678;
      for (int i = 0; i < 2; ++i) write_results_files(&b.settings, &b.stats);  // the second does nothing
    });
  }
  std::string directory = testing::TempDir() + "vorn_results_" + std::to_string(getpid());
};

TEST_F(ResultsFiles, OneRowEachPerTestAndAHeaderInNewFiles) {
  EXPECT_EQ(run("-l1500 -fa.csv", {11776}), completion);
  EXPECT_EQ(run("-p -E65536 -S60 -d7 -fa.csv -Fnight", {}), completion);
  const std::string first = "5.2,a.csv,udp,3,5,-2147483648,100,50,1500,100000,  12.346s,Tue Nov 14 22:13:32 2023,NULL,";
  const std::string second = "5.2,a.csv,tcp,3,5,-2147483648,203,65536,0,7,  12.346s,Tue Nov 14 22:13:32 2023,night,";
  EXPECT_EQ(text_of("a.csv"),
            header(false) + first + repeated("11.8,", 110) + "\n" + second + repeated(" 0.0,", 110) + "\n");
  EXPECT_EQ(text_of("HISTOGRAM_a.csv"), header(true) + first + repeated("0,", 12) + "1,\n" + second + "\n");
  EXPECT_EQ(run("-l1500 -fa.txt", {11776}), completion);  // a text file has tabs
  for (const std::string name : {"a", "HISTOGRAM_a"}) {
    std::string expected = text_of(name + ".csv");
    expected = expected.substr(0, expected.find(second)).replace(expected.find("a.csv"), 5, "a.txt");
    std::replace(expected.begin(), expected.end(), ',', '\t');
    EXPECT_EQ(text_of(name + ".txt"), expected);
  }
}

TEST_F(ResultsFiles, PercentilesOfAHundredBatches) {
  std::vector<std::uint32_t> samples;
  for (std::uint32_t i = 1; i <= 100; ++i) samples.push_back(i * 1000);
  EXPECT_EQ(run("-fc", samples), completion);
  std::istringstream fields(text_of("c").substr(header(false).size()));
  std::vector<std::string> values;
  for (std::string field; std::getline(fields, field, ',');) values.push_back(field);
  ASSERT_EQ(values.size(), 13U + 110U + 1U);  // and the line's end
  values.erase(values.begin(), values.begin() + 13);
  EXPECT_EQ(values[0] + values[10] + values[11] + values[12] + values[15],
            "100.090.090.089.085.0");  // 11 x 0.01 < 0.11
  EXPECT_EQ(values[99] + values[109], " 1.0 1.0");
}

TEST_F(ResultsFiles, ThatCannotBeWritten) {
  EXPECT_EQ(run("-fsub/d", {}), completion + "[err] Error: could not open histogram file HISTOGRAM_sub/d\n");
  EXPECT_TRUE(text_of("sub/d").starts_with(header(false) + "5.2,sub/d,"));
  EXPECT_EQ(run("-f/dev/full", {}), completion +
                                        "[err] Error: could not write results file /dev/full\n"
                                        "Error: could not open histogram file HISTOGRAM_/dev/full\n");
  EXPECT_EQ(run("-Ftag", {}), completion);
  EXPECT_EQ(std::distance(std::filesystem::recursive_directory_iterator("."), {}), 2);  // sub/d and nothing else
}
