#include "net/message_handler.h"

#include "support/expect.h"

static std::string handled(workbench* b, int result, byte_vector bytes) {
  return said(result, [&] {
    return handle_test_message(inet_addr("10.0.0.7"), htons(9999), bytes.data(), static_cast<int>(bytes.size()),
                               &b->handled_now(), &b->settings, &b->stats, &b->run);
  });
}

TEST(EchoMode, SettlesByAll32BitsMasked) {
  workbench b("-u");
  for (const std::int64_t sequence : {65541LL, 0x80000006LL, 0xFFFFFFFFLL}) {
    b.request(sequence);
    world.now += 1234;
    EXPECT_EQ(handled(&b, 0, message(2, 70001, 0, sequence)), "");  // of another test
    EXPECT_EQ(b.slot(sequence).outstanding, 1U);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(handled(&b, 0, message(2, 70000, 0, sequence)), "");  // and a duplicate
    const packet_slot& slot = b.slot(sequence);
    EXPECT_EQ(numbers(slot.outstanding, slot.responder, slot.rx_time), numbers(0, inet_addr("10.0.0.7"), world.now));
  }
  EXPECT_EQ(numbers(b.stats.rx_packets, b.stats.late_responses), (list{3, 0}));
}

TEST(Stream, IsTrackedPacketByPacket) {
  const char* const lines =
      "  3:           0: Received Data in  0.000000s from 10.0.0.7\n"
      "  3:           1: Received Data in  0.200000s from 10.0.0.7\n"
      "  3:           5: Received Data in  0.250000s from 10.0.0.7\n"
      "[err] Error- sequence skipped from 3:1 to 5; 3 packets lost\n"
      "  3:          48: Received Data in  0.000010s from 10.0.0.7\n"
      "[err] Error- sequence skipped from 3:5 to 48; 42 packets lost\n"
      "  3:          49: Received Data in  0.250000s from 10.0.0.7\n"
      "[err] Error- packet 3:49 arrived 250000 usecs from last one\n"
      "  3:          50: Received Data in  0.000000s from 10.0.0.7\n"
      "  3:          51: Received Data in 4295.000000s from 10.0.0.7\n"
      "[err] Error- packet 3:51 arrived 2147483647 usecs from last one\n";
  workbench b("-c -E50");
  for (int i = 0; i < 50; ++i) b.request(i);
  // Usec since the packet before, the last more than 32 bits hold; sequence.
  const list cases[] = {{9, 0}, {200000, 0x10001}, {250000, 5}, {10, 48}, {250000, 49}, {0, 50}, {4295000000, 51}};
  std::string text;
  for (const list& each : cases) {
    world.now += each[0];
    text += handled(&b, each[1] == 49 ? 2 : 1, message(3, 55, 3, each[1]));
  }
  EXPECT_EQ(text, lines);
  EXPECT_EQ(numbers(b.stats.late_arrivals, b.stats.batch_first_seq, b.stats.batch_last_seq), (list{2, 0, 51}));
  EXPECT_EQ(numbers(b.stats.latency_min, b.stats.latency_max, b.stats.latency_sum), (list{0, 4295000000, 4295450000}));
  EXPECT_EQ(numbers(b.slot(3).outstanding, b.slot(5).outstanding, b.stats.rx_packets), (list{1, 0, 7}));
}

TEST(Stream, BeginsAnewWithEverySenderAndBatch) {
  workbench b("-c");
  // Sender, batch, type, sequence; whether it is timed.
  const list cases[] = {{55, 3, 3, 9, 0},  {55, 3, 2, 10, 1}, {55, 4, 3, 20, 0},     {56, 4, 3, 30, 0},
                        {56, 4, 1, 31, 1}, {0, 0, 2, 50, 0},  {0, 7, 3, 0x1FFFF, 0}, {0, 7, 3, 0x20000, 1}};
  for (const list& each : cases) {
    world.now += 1000;
    const std::string text = handled(&b, 1, message(each[2], each[0], each[1], each[3]));
    const char* const end = each[4] != 0 ? " in  0.001000s from 10.0.0.7\n" : " in  0.000000s from 10.0.0.7\n";
    EXPECT_TRUE(text.ends_with(end)) << text;
    EXPECT_EQ(numbers(b.settings.process_id, b.run.batch), numbers(each[0], each[1]));
  }
}
