#include "net/icmp_handler.h"

#include "support/expect.h"

static std::string handled(workbench* b, int result, const byte_vector& frame) {
  return said(result, [&] { return b->receive_icmp(frame); });
}

static byte_vector reply(std::int64_t sequence, int id = 70000, const char* source = "10.0.0.1") {
  return datagram(icmp_message(0, id, sequence, byte_vector(5)), source);
}

TEST(IcmpHandler, OvertakenRequestsOfOneHostAreLost) {
  const std::string unexpected = "Err- Unexpected echo response received. Duplicate or out of order, ID ";
  const struct {
    std::int64_t first = 0, sent = 4;  // of as many as the window has
    std::uint32_t in_a_sweep = 0;
    std::int64_t lost = 2;  // when the last but one is answered
  } cases[] = {{.first = 10},
               {.first = 65534},
               {.first = 0x7FFFFFFE},
               {.first = 0xFFFFFFF0},
               {.sent = 3, .lost = 0},
               {},
               {.in_a_sweep = 1, .lost = 0}};
  for (const auto& [first, sent, in_a_sweep, lost] : cases) {
    workbench b("-a4");
    b.settings.total_requests += in_a_sweep;
    b.run.oldest_outstanding = static_cast<std::uint32_t>(first);
    for (int i = 0; i < sent; ++i) b.request(first + i);
    const std::int64_t answered = first + sent - 2;
    EXPECT_EQ(handled(&b, 1, reply(answered)), "");
    EXPECT_EQ(numbers(b.slot(answered - 1).outstanding, b.slot(answered + 1).outstanding), numbers(lost == 0, 1));
    EXPECT_EQ(handled(&b, 0, reply(answered)), unexpected + std::to_string(answered & 0xFFFF) + "\n");
    EXPECT_EQ(numbers(b.stats.rx_packets, b.stats.lost_packets, b.stats.late_responses), (list{1, lost, 1}));
    b.settings.no_timeout_messages = 1;
    EXPECT_EQ(handled(&b, 0, reply(answered)), "");
  }
}

TEST(IcmpMonitor, LocksOnTheFirstForeignSenderAndMeasuresItsStream) {
  const char* const lines =
      "Monitor locked on 10.0.0.1, id 1234\n"
      "       65535: Received  Echo Reply  in  0.001500s from 10.0.0.1\n"
      "           0: Received  Echo Reply  in  0.200000s from 10.0.0.1\n"
      "           1: Received  Echo Reply  in  0.200001s from 10.0.0.1\n"
      "[err] Error- packet arrived 200001 usecs from last one\n"
      "           7: Received  Echo Reply  in  0.000007s from 10.0.0.1\n"
      "[err] Error- sequence skipped from 1 to 7; 5 packets lost\n"
      "           6: Received  Echo Reply  in  0.000000s from 10.0.0.1\n"
      "[err] Error- sequence skipped from 7 to 6; -2 packets lost\n"
      "           7: Received  Echo Reply  in 7200.000000s from 10.0.0.1\n"
      "[err] Error- packet arrived 2147483647 usecs from last one\n";
  workbench b;
  b.settings.partner_mode = 1;
  b.settings.process_id = 0;
  std::string text = handled(&b, 0, reply(0, 1234, "127.0.0.1"));
  text += handled(&b, 0, reply(0, 1234));  // locks, and is not counted
  text += handled(&b, 0, reply(7, 4321, "192.168.1.6"));
  const auto stream = pairs{{0, 65534}, {1500, 65535}, {200000, 0}, {200001, 1}, {7, 7}, {0, 6}, {7200000000, 7}};
  for (const auto& [gap_usec, sequence] : stream) {
    world.now += gap_usec;
    text += handled(&b, 1, reply(sequence, 1234));
  }
  EXPECT_EQ(text, lines);
  EXPECT_EQ(numbers(b.stats.rx_packets, b.stats.lost_packets, b.stats.late_arrivals), (list{7, 5 + 65534, 2}));
  b.settings.silent = 1;
  EXPECT_EQ(handled(&b, 1, reply(8, 1234)), "");
}
