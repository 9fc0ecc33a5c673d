#include "net/icmp_handler.h"

#include "support/expect.h"

static std::string handled(bench* b, int result, const byte_vector& frame) {
  return said(result, [&] {
    return handle_icmp_response(frame.data(), static_cast<int>(frame.size()), &b->settings, &b->stats, &b->run);
  });
}

static byte_vector reply(std::int64_t sequence, int id = 70000, const char* source = "10.0.0.1") {
  return datagram(icmp_message(0, id, sequence, zeros(5)), source);
}

static list counts(const bench& b) {
  return numbers(b.stats.rx_packets, b.stats.lost_packets, b.stats.late_responses, b.stats.late_arrivals);
}

TEST(IcmpHandler, SettlesWhatAnswersARequest) {
  const std::pair<byte_vector, list> cases[] = {{reply(65541), {0, 0x0A000001}},
                                                {datagram(icmp_message(0, 70000, 5), "10.0.0.2", 40), {0, 0x0A000002}},
                                                {datagram(icmp_error(11, 70000, 5), "10.9.9.9"), {11, 0x0A090909}},
                                                {datagram(icmp_error(3, 70000, 5), "10.9.9.9"), {3, 0x0A090909}}};
  for (const auto& [frame, settled] : cases) {
    bench b;
    b.request(65541);  // slot 5, behind the wrap of the 16-bit field
    world.now += 1234;
    EXPECT_EQ(handled(&b, 1, frame), "");
    const packet_slot& slot = b.slot(5);
    EXPECT_EQ(numbers(slot.response_type, ntohl(slot.responder)), settled);
    EXPECT_EQ(numbers(slot.outstanding, slot.rx_time), numbers(0, world.now));
    EXPECT_EQ(counts(b), (list{1, 0, 0, 0}));
  }
}

TEST(IcmpHandler, IgnoresOrRefusesWhatDoesNot) {
  const byte_vector error = icmp_error(11, 70000, 5);
  std::vector<byte_vector> silent = {reply(5, 70001), datagram(icmp_error(11, 70001, 5)),
                                     datagram(icmp_error(11, 70000, 6)), datagram(icmp_error(3, 70000, 5, 0x46)),
                                     datagram(icmp_error(3, 70000, 5, 0x45, 17))};
  for (std::size_t length = 0; length < 28; ++length) silent.push_back(prefix(datagram(error), length));
  for (std::size_t length = 8; length < 36; ++length) silent.push_back(datagram(with_checksum(prefix(error, length))));
  for (const int type : {4, 5, 8, 9, 10, 12, 13, 14, 15, 16, 17, 18})
    silent.push_back(datagram(icmp_message(type, 70000, 5)));
  bench b;
  b.request(5);
  for (const byte_vector& frame : silent) EXPECT_EQ(handled(&b, 0, frame), "") << testing::PrintToString(frame);
  EXPECT_EQ(handle_icmp_response(error.data(), -1, &b.settings, &b.stats, &b.run), 0);
  for (const bool remote_run : {false, true}) {
    b.settings.remote_run = remote_run ? 1 : 0;
    EXPECT_EQ(handled(&b, 0, patched(reply(5), 32, {1})),
              remote_run ? "" : "[err] Error: Received ICMP message with bad ICMP checksum\n");
    for (const int type : {1, 2, 6, 7, 19, 20, 128, 255}) {
      EXPECT_EQ(handled(&b, 0, datagram(icmp_message(type, 70000, 5))),
                remote_run ? "" : "[err] Error: Inavlid ICMP type received\n");
    }
  }
  EXPECT_EQ(b.slot(5).outstanding, 1U);
  EXPECT_EQ(counts(b), (list{0, 0, 0, 0}));
}

TEST(IcmpHandler, OvertakenRequestsOfOneHostAreLost) {
  const std::string unexpected = "Err- Unexpected echo response received. Duplicate or out of order, ID ";
  for (const std::int64_t base : {10LL, 65534LL, 0x7FFFFFFELL, 0xFFFFFFF0LL}) {
    bench b("-a4");
    for (int i = 0; i < 4; ++i) b.request(base + i);
    b.run.oldest_outstanding = static_cast<std::uint32_t>(base);
    EXPECT_EQ(handled(&b, 1, reply(base + 2)), "");
    EXPECT_EQ(counts(b), (list{1, 2, 0, 0}));
    EXPECT_EQ(numbers(b.slot(base + 1).outstanding, b.slot(base + 1).responder, b.slot(base + 3).outstanding),
              (list{0, 0, 1}));
    EXPECT_EQ(handled(&b, 0, reply(base)), unexpected + std::to_string(base & 0xFFFF) + "\n");
    b.settings.no_timeout_messages = 1;
    EXPECT_EQ(handled(&b, 0, reply(base + 2)), "");  // a duplicate
    EXPECT_EQ(counts(b), (list{1, 2, 2, 0}));
  }
  for (const list& each : {list{3, 3, 0}, {4, 3, 3}, {4, 1, 0}}) {  // the first window fills with its fourth request
    bench b("-a4");
    b.settings.echo_count = static_cast<std::uint32_t>(each[1]);  // 1 of 3: a sweep
    for (int i = 0; i < each[0]; ++i) b.request(i);
    EXPECT_EQ(handled(&b, 1, reply(each[0] - 1)), "");
    EXPECT_EQ(b.stats.lost_packets, each[2]);
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
      "           6: Received  Echo Reply  in  0.000007s from 10.0.0.1\n"
      "[err] Error- sequence skipped from 7 to 6; -2 packets lost\n"
      "           7: Received  Echo Reply  in  0.000000s from 10.0.0.1\n";
  for (const bool hushed : {false, true}) {  // silent, and run for a remote commander
    bench b;
    b.settings.partner_mode = 1;
    b.settings.process_id = 0;
    b.settings.silent = b.settings.remote_run = hushed ? 1 : 0;
    EXPECT_EQ(handled(&b, 0, reply(0, 1234, "127.0.0.1")), "");
    std::string text = handled(&b, 0, reply(0, 1234));  // locks, and is not counted
    text += handled(&b, 0, reply(7, 4321, "192.168.1.6"));
    for (const list& each :
         {list{0, 65534}, {1500, 65535}, {200000, 0}, {200001, 1}, {7, 7}, {7, 6}, {-3600000000, 7}}) {
      world.now += each[0];
      text += handled(&b, 1, reply(each[1], 1234));
    }
    EXPECT_EQ(text, hushed ? "" : lines);
    EXPECT_EQ(counts(b), (list{7, 5 + 65534, 0, 1}));
  }
}
