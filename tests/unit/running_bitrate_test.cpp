#include "report/running_bitrate.h"

#include "support/expect.h"

static std::string bitrate(const bench& b) {
  return said([&] { print_running_bitrate(&b.settings, &b.run, &b.stats); });
}

TEST(RunningBitrate, CountsTheWindowAndTheTest) {
  bench b("-A5");
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
  b.slot(1).responder = b.slot(2).responder = 0;
  for (const int sequence : {4, 5}) {  // one answer is left, then none
    b.slot(sequence).responder = 0;
    EXPECT_EQ(bitrate(b), "Running Bitrate:   0.000 Megabits/s,    0.0 fps, " + counters);
  }
  b.stats.tx_packets = 0;
  EXPECT_EQ(bitrate(b), "Running Bitrate:   0.000 Megabits/s,    0.0 fps\n");
  b.settings.remote_run = 1;
  EXPECT_EQ(bitrate(b), "");
}

TEST(RunningBitrate, LargestWindow) {
  const std::string one_sent = "     1 tx,      0 rx,      0 missing,      0 late,      0 lost,  0.00% lost\n";
  for (const char* window : {"-A65536", "-A65537", "-A4294967295"}) {  // no more than the table holds
    bench b(window);
    b.run.payload_length = 65507;  // 65535 intervals of twice that, more than 2^32 bytes, in 65535 usec
    b.run.oldest_outstanding = 0x7FFF0000;
    b.stats.tx_packets = 1;
    for (int i = 0; i < 65536; ++i) b.answer(i, 65535 - i);
    EXPECT_EQ(bitrate(b), "Running Bitrate: 1048112.000 Megabits/s, 2000000.0 fps, " + one_sent);
  }
}
