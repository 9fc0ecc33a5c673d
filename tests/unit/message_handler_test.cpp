#include "net/message_handler.h"

#include <map>

#include "support/expect.h"

static std::string handled(workbench* b, int result, const byte_vector& bytes) {
  return said(result, [&] { return b->receive_message(bytes); });
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
  constexpr std::int64_t too_long = 4295000000;  // for 32 bits
  std::string text;
  for (const auto& [gap_usec, sequence] :
       pairs{{9, 0}, {200000, 0x10001}, {250000, 5}, {10, 48}, {250000, 49}, {0, 50}, {too_long, 51}}) {
    world.now += gap_usec;
    text += handled(&b, sequence == 49 ? 2 : 1, message(3, 55, 3, sequence));
  }
  EXPECT_EQ(text, lines);
  EXPECT_EQ(numbers(b.stats.late_arrivals, b.stats.batch_first_seq, b.stats.batch_last_seq), (list{2, 0, 51}));
  EXPECT_EQ(numbers(b.stats.latency_min, b.stats.latency_max, b.stats.latency_sum), (list{0, 4295000000, 4295450000}));
  EXPECT_EQ(numbers(b.slot(3).outstanding, b.slot(5).outstanding, b.stats.rx_packets), (list{1, 0, 7}));
}

TEST(Stream, BeginsAnewWithEverySenderAndBatch) {
  const std::map<std::int64_t, std::string> names = {{1, "Echo Request"}, {2, " Echo Reply "}, {3, "Data"}};
  workbench b("-c");
  const struct {
    std::int64_t sender, batch, type, sequence;
    bool timed;
  } cases[] = {{.sender = 55, .batch = 3, .type = 3, .sequence = 9, .timed = false},
               {.sender = 55, .batch = 3, .type = 2, .sequence = 10, .timed = true},
               {.sender = 55, .batch = 4, .type = 3, .sequence = 20, .timed = false},
               {.sender = 56, .batch = 4, .type = 3, .sequence = 30, .timed = false},
               {.sender = 56, .batch = 4, .type = 1, .sequence = 31, .timed = true},
               {.sender = 0, .batch = 0, .type = 2, .sequence = 50, .timed = false},
               {.sender = 0, .batch = 7, .type = 3, .sequence = 0x1FFFF, .timed = false},
               {.sender = 0, .batch = 7, .type = 3, .sequence = 0x20000, .timed = true}};
  for (const auto& [sender, batch, type, sequence, timed] : cases) {
    world.now += 1000;
    const std::string text = handled(&b, 1, message(type, sender, batch, sequence));
    const std::string gap = timed ? " in  0.001000s" : " in  0.000000s";
    EXPECT_TRUE(text.ends_with(": Received " + names.at(type) + gap + " from 10.0.0.7\n")) << text;
    EXPECT_EQ(numbers(b.settings.process_id, b.run.batch), numbers(sender, batch));
  }
}
