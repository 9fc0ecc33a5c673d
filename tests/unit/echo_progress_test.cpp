#include "engine/echo_progress.h"

#include "support/expect.h"

static std::string progress(workbench* b, int result) {
  b->run.step_time = 0;
  return said(result, [&] { return echo_progress(&b->settings, &b->run, &b->stats); });
}

TEST(EchoProgress, ReportsInSequenceOrderEachOnce) {
  workbench b("-e2 -d5000 -A7");
  b.stats.tx_packets = 8;  // the bitrate comes at every seventh
  b.request(0, 5000);
  EXPECT_EQ(progress(&b, 1), "");
  world.now += 1;
  EXPECT_EQ(progress(&b, 0), "");  // the next is due when more than the delay has passed
  b.request(1, 4000);
  b.answer(1, 1000);
  EXPECT_EQ(progress(&b, 1), "");  // 0 is still awaited
  b.answer(0, 201);
  b.slot(0).response_type = 11;
  EXPECT_EQ(progress(&b, 0),
            "           0: Received TTL Exceeded in  0.004800s from 10.0.0.1\n"
            "           1: Received  Echo Reply  in  0.003000s from 10.0.0.1\n");
  EXPECT_EQ(numbers(b.stats.latency_min, b.stats.latency_max, b.stats.latency_sum), (list{3000, 4800, 7800}));
  EXPECT_EQ(progress(&b, 0), "");
}

TEST(EchoProgress, TimesOutAtTheAgeItselfOnEitherSideOfEveryWrap) {
  for (const std::int64_t base : {0LL, 65535LL, 0x7FFFFFFFLL, 0xFFFFFFF0LL}) {
    workbench b("-s");
    b.settings.total_requests = static_cast<std::uint32_t>(base + 2);
    b.run.oldest_outstanding = static_cast<std::uint32_t>(base);
    b.stats.lost_packets = 0xFFFFFFFF;
    b.request(base, 199999);
    b.request(base + 1, 100);
    b.answer(base + 1);
    EXPECT_EQ(progress(&b, 1), "");
    world.now += 1;
    const std::string line = progress(&b, 0);
    EXPECT_TRUE(line.ends_with(": TIMEOUT in  0.200000s, expected rsp from 10.0.0.1\n"));
    EXPECT_EQ(std::stoll(line), static_cast<std::int32_t>(base));
    EXPECT_EQ(numbers(b.stats.lost_packets, b.stats.latency_sum), (list{0x100000000, 100}));
  }
}

TEST(EchoProgress, PassesRequestsThatWereNeverSent) {
  workbench b("-e -A7");
  b.request(0, 100);
  b.answer(0);
  b.slot(0).responder = 0;                               // declared lost by the handler, and counted there
  b.request(1, 200000);                                  // its send failed
  b.run.current_tx__packet = b.settings.total_requests;  // 2147483647
  EXPECT_TRUE(progress(&b, 0).starts_with("Running Bitrate: "));
  EXPECT_EQ(numbers(b.run.oldest_outstanding, b.stats.lost_packets), (list{2147483647, 1}));
}
