#include "report/test_summary.h"

#include "support/expect.h"

static std::string summary(std::int64_t total, std::int64_t sent, std::int64_t received, std::int64_t seconds) {
  bench b;
  b.settings.total_requests = static_cast<std::uint32_t>(total);
  b.settings.payload_length = 56;
  b.stats.end_time = b.stats.start_time + seconds * 1000000;
  b.stats.tx_packets = static_cast<std::uint64_t>(sent);
  b.stats.rx_packets = static_cast<std::uint64_t>(received);
  b.stats.latency_min = 1000;
  b.stats.latency_max = 4000;
  b.stats.latency_sum = received == 0 ? 0 : received / 3 * 7000;
  return said([&] { print_test_summary(&b.settings, &b.stats); });
}

TEST(Summary, CountsRatesAndRoundTrips) {
  const std::string round_trips = "Min =  0.001000, Max =  0.004000, Avg =  0.002333, \n\n";
  EXPECT_EQ(summary(10, 10, 9, 1),
            "In  1.000000s, 10 tx pkts, 9 rx pkts, 1 missing, 0 invalid\n   10.000 tx/s,     9.000 rx/s\n"
            "IP data rate     1.064KB/s,     8.512Kb/s\n" +
                round_trips);
  EXPECT_EQ(summary(10, 10, 0, 2),
            "In  2.000000s, 10 tx pkts, 0 rx pkts, 10 missing, 0 invalid\n    5.000 tx/s,     0.000 rx/s\n"
            "IP data rate     0.280KB/s,     2.240Kb/s\n");
  EXPECT_EQ(summary(0xFFFFFFFF, 0x180000000, 0x100000002, 4),
            "In  4.000000s, -2147483648 tx pkts, 2 rx pkts, 2147483646 missing, 0 invalid\n"
            "1610612736.000 tx/s, 1073741824.500 rx/s\nIP data rate 150323855.388KB/s, 1202590843.104Kb/s\n" +
                round_trips);
  EXPECT_EQ(summary(1, 1, 3, 1), round_trips);                          // a single request has no rate
  EXPECT_TRUE(summary(2, 2, 0, -3600).starts_with("In  0.000000s, "));  // the clock was set back
}
