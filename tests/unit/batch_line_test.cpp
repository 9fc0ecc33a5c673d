#include "report/batch_line.h"

#include "support/expect.h"

static const std::string labels = "  0.0  50.0  90.0  95.0  98.0  99.0  99.9 ";
static const std::string rates = " 12.0  11.0  10.0  10.0  10.0  10.0  10.0 ";
static const std::string buffers = "  0.1   1.5   3.0   3.0   3.0   3.0   3.0 ";

struct figures : bench {  // of a batch of which 47 of 50 packets came in 48 ms
  explicit figures(const std::string& arguments) : bench(arguments + " -c -E50") {
    run.batch = 7;
    run.payload_length = 1472;
    stats.rx_packets = 47;
    stats.late_arrivals = 2;
    stats.latency_min = 900;
    stats.latency_max = 2100;
    stats.batch_last_seq = 49;
    stats.buffer_consumption_usec = 1234.5;
    stats.lost_packets = 0x180000000;
    stats.bad_samples = 4;
    for (const std::uint32_t rate : {10000U, 11000U, 12000U}) sample_list_add(&bandwidth_samples, rate);
    for (const std::uint32_t buffer : {100U, 1500U, 3000U}) sample_list_add(&buffer_samples, buffer);
  }
  [[nodiscard]] std::string line() const {
    return said([this] { print_batch_line(&settings, &run, &stats, &batch); });
  }
  batch_judgement batch = {.span_usec = 48000, .rate_kbps = 11285, .lost = 3, .bad = false};
};

TEST(BatchLine, OfEveryStyle) {
  const std::string brief = "    7:  Pkts:  47/50    11.3 mbps  ";
  const std::string verbose =
      "    7: |    X    2    3    4    5    6    |   3/ 50   6.00% lost,   2 late   979.2 rx/s,  11.3 Mbps D=0.048, "
      "m/M/a   0.900/  2.100/  1.021, ";
  const std::string msec = "   1.2 msec ";
  const std::string end = "  Lost: -2147483648  Bad Samples: 4\n";
  const std::pair<std::string, std::string> cases[] = {{"", brief + rates + msec + end},
                                                       {"-b", brief + rates + msec + buffers + end},
                                                       {"-B", brief + msec + end},
                                                       {"-v -b", verbose + rates + msec + buffers + "\n"},
                                                       {"-v -B", verbose + msec + "\n"}};
  for (const auto& [arguments, line] : cases) {
    EXPECT_EQ(figures(arguments).line(), line) << arguments;
    figures quiet("-Q " + arguments);
    EXPECT_EQ(quiet.line(), "\n");
    quiet.settings.total_requests = 7;  // the last batch
    EXPECT_EQ(quiet.line(), line) << arguments;
    quiet.batch.bad = true;
    EXPECT_EQ(quiet.line(), std::string(line).replace(6, 1, "*"));
    quiet.stats.batch_first_seq = quiet.stats.batch_last_seq;  // one packet or none
    EXPECT_TRUE(quiet.line().ends_with("    7:*** Rx 47, Lost 3\n"));
  }
}

TEST(BatchLine, LabelsBeforeEveryFiftiethBatch) {
  const std::string gap(12, ' ');
  const std::string margin(35, ' ');
  const std::pair<const char*, std::string> cases[] = {{"-b", margin + labels + gap + labels + "\n"},
                                                       {"-b -B", margin + gap + labels + "\n"},
                                                       {"-v", std::string(140, ' ') + labels + gap + "\n"},
                                                       {"-Q", margin + gap + "\n"},
                                                       {"-B", gap}};
  for (const auto& [arguments, row] : cases) {
    for (const std::uint32_t batch : {49U, 50U, 51U, 100U, 65550U, 0U}) {  // 0: behind the wrap
      figures f(arguments);
      f.run.batch = batch;
      EXPECT_EQ(f.line().starts_with(row), batch % 50 == 0) << arguments << ", batch " << batch;
    }
  }
}
