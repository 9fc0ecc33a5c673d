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

static std::string bitrate(const workbench& b) {
  return said([&] { print_running_bitrate(&b.settings, &b.run, &b.stats); });
}

TEST(RunningBitrate, CountsTheWindowAndTheTest) {
  workbench b("-A5");
  b.run.payload_length = 1452;
  b.run.oldest_outstanding = 6;  // the window leaves out the first of six
  for (int i = 0; i < 6; ++i) b.answer(i, (5 - i) * 250000);
  b.stats.tx_packets = 0x100000028;
  b.stats.rx_packets = 30;
  b.stats.lost_packets = 0x80000000;
  b.stats.late_responses = 2;
  const std::string counters = "    40 tx,     30 rx, 2147483646 missing,      2 late, -2147483648 lost, 50.00% lost\n";
  EXPECT_EQ(bitrate(b), "Running Bitrate:   0.093 Megabits/s,    8.0 fps, " + counters);
  b.slot(3).responder = 0;  // an unanswered one is passed over
  EXPECT_EQ(bitrate(b), "Running Bitrate:   0.070 Megabits/s,    6.0 fps, " + counters);
  for (int i = 1; i < 5; ++i) b.slot(i).responder = 0;  // one answer is left
  b.stats.tx_packets = 0;
  EXPECT_EQ(bitrate(b), "Running Bitrate:   0.000 Megabits/s,    0.0 fps\n");
}

TEST(RunningBitrate, CountsEverySlotOnce) {
  workbench b("-A70000");
  b.run.oldest_outstanding = 70000;
  for (int i = 70000 - 65536; i < 70000; ++i) b.answer(i, 70000 - i);
  EXPECT_TRUE(bitrate(b).ends_with(", 2000000.0 fps\n"));
}

TEST(Progress, OfRequestsAndOfBatches) {
  workbench echo;
  workbench commander("-c -E50");
  for (workbench* b : {&echo, &commander}) {
    b->run.batch = 4;
    b->stats.tx_packets = 8;
    b->stats.rx_packets = 5;
    b->stats.lost_packets = 2;
    b->stats.lost_in_bad_samples = 14;
  }
  const auto progress = [](const workbench& b) { return said([&] { print_progress(&b.settings, &b.run, &b.stats); }); };
  EXPECT_EQ(progress(echo), "[err] So far: 8 sent, 5 received, 2 lost, 25.00% lost\n");
  EXPECT_EQ(progress(commander), "[err] So far: 200 sent, 184 received, 16 lost, 8.00% lost\n");
  commander.run.batch = 0;
  commander.stats = {};
  EXPECT_EQ(progress(commander), "[err] So far: 0 sent, 0 received, 0 lost, 0.00% lost\n");
}
