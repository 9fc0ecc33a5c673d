#include "report/summary.h"

#include "support/expect.h"

static std::string summary(const std::string& arguments, std::int64_t usec) {
  workbench b(arguments);
  b.settings.ip_length = 1500;
  b.settings.payload_length = 1472;
  b.stats.end_time = b.stats.start_time + usec;
  b.stats.tx_packets = 5;
  b.stats.rx_packets = 3;
  b.stats.latency_min = 1000;
  b.stats.latency_max = 4000;
  b.stats.latency_sum = 6001;
  return said([&] { print_test_summary(&b.settings, &b.stats); });
}

TEST(Summary, CountsNothingBelowZero) {
  workbench b("-e5");
  b.stats.end_time = b.stats.start_time;
  b.stats.tx_packets = 5;
  b.stats.rx_packets = 7;
  const auto printed = [&] { return said([&] { print_test_summary(&b.settings, &b.stats); }); };
  EXPECT_TRUE(printed().starts_with("In  0.000000s, 5 tx pkts, 7 rx pkts, 0 missing, 0 invalid\n"));
  b.stats.tx_packets = 5000000000;
  EXPECT_TRUE(printed().starts_with("In  0.000000s, 705032704 tx pkts, 7 rx pkts, 705032697 missing, 0 invalid\n"));
}

TEST(Summary, OfManyRequestsOfOneAndOfNoTime) {
  const std::string counts = "s, 5 tx pkts, 3 rx pkts, 2 missing, 0 invalid\n";
  const std::string latencies = "Min =  0.001000, Max =  0.004000, Avg =  0.002000, \n\n";
  EXPECT_EQ(summary("-e5", 2000000), "In  2.000000" + counts +
                                         "    2.500 tx/s,     1.500 rx/s\n"
                                         "IP data rate     5.888KB/s,    47.104Kb/s\n" +
                                         latencies);
  EXPECT_EQ(summary("-e5", 0), "In  0.000000" + counts +
                                   "    0.000 tx/s,     0.000 rx/s\n"
                                   "IP data rate     0.000KB/s,     0.000Kb/s\n" +
                                   latencies);
  EXPECT_EQ(summary("-e1", 2000000), latencies);
}
