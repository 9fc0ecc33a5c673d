#include "report/summary.h"
#include "support/expect.h"

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
