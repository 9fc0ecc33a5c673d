#include "net/message_handler.h"

#include "support/expect.h"

static std::string handled(bench* b, int result, byte_vector bytes) {
  return said(result, [&] {
    return handle_test_message(inet_addr("10.0.0.7"), htons(9999), bytes.data(), static_cast<int>(bytes.size()),
                               &b->settings, &b->stats, &b->run);
  });
}

static byte_vector command(std::uint32_t packets, std::uint32_t delay, std::uint32_t ip_length) {
  const byte_vector whole = patched(patched(message(4, 55, 9, 0, 164), 28, be32(packets)), 36, be32(delay));
  return patched(patched(whole, 52, be32(ip_length)), 110, be16(8003));
}

TEST(Responder, AnswersWithTheLengthThatCame) {
  for (const int monitor : {0, 1}) {
    bench b("-u");
    if (monitor != 0) b.become_monitor();
    for (const std::uint32_t length : {20U, 21U, 1472U, 22U, 65507U}) {  // a short one after a long one too
      const byte_vector request = message(1, 70000, 7, 0x80000001, length);
      b.run.last_rx_time = 0;
      EXPECT_EQ(handled(&b, monitor, patched(request, length - 1, {0xA5})), "");
      EXPECT_EQ(world.sent.back().bytes, message(2, 70000, 0, 0x80000001, length));  // with nothing of the request's
      EXPECT_EQ(numbers(world.sent.back().address, world.sent.back().port),
                numbers(inet_addr("10.0.0.7"), htons(9999)));
    }
    b.run.last_rx_time = 0;
    EXPECT_EQ(handled(&b, monitor, message(2, 70000, 7, 1)), "");  // an answer is never answered
    EXPECT_EQ(numbers(b.stats.rx_packets, world.sent.size()), (list{monitor * 6, 5}));
  }
}

TEST(Responder, EndsAConnectionThatTakesOnlyHalfAReply) {
  bench b("-p -T10000000");
  b.become_monitor();
  b.connect(SOCK_STREAM);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(handled(&b, 1, message(1, 5, 0, i, 60000)), "");
  EXPECT_EQ(world.now - b.stats.start_time, 10000000);  // nobody reads: given up once, and closed
  byte_vector rest(20 * 60000);
  EXPECT_LT(recv(b.peer, rest.data(), rest.size(), MSG_WAITALL), 19 * 60000);  // the peer sees it end
}

TEST(EchoMode, SettlesByAll32BitsMasked) {
  bench b("-u");
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

TEST(Validation, ShortMessagesChangeNothingAndUnknownTypesAreReported) {
  for (const bool remote_run : {false, true}) {
    bench b("-u");
    b.become_monitor();
    b.settings.remote_run = remote_run ? 1 : 0;
    for (const byte_vector& whole :
         {message(0, 55, 5, 0), message(1, 55, 5, 0), message(3, 55, 5, 0), command(1, 1, 0)}) {
      for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(handled(&b, 0, prefix(whole, length)), "");
    }
    EXPECT_EQ(numbers(b.settings.process_id, b.run.batch, world.sent.size()), (list{1, 0, 0}));
    for (const std::int64_t type : {0LL, 5LL, 0x01000000LL, 0xFFFFFFFFLL}) {
      EXPECT_EQ(handled(&b, 0, message(type, 1, 0, 0)), remote_run ? "" : "[err] Error: Inavlid UDP type received\n");
    }
    EXPECT_EQ(b.stats.rx_packets, 0U);
  }
}

TEST(Stream, IsTrackedPacketByPacket) {
  const char* const lines =
      "  3:           0: Received Data in  0.000000s from 10.0.0.7\n"
      "  3:           1: Received Data in  0.001500s from 10.0.0.7\n"
      "  3:           2: Received Data in  0.000700s from 10.0.0.7\n"
      "  3:           5: Received Data in  0.250000s from 10.0.0.7\n"
      "[err] Error- sequence skipped from 3:2 to 5; 2 packets lost\n"
      "  3:           4: Received Data in  0.000010s from 10.0.0.7\n"
      "[err] Error- sequence skipped from 3:5 to 4; -2 packets lost\n"
      "  3:          48: Received Data in  0.000010s from 10.0.0.7\n"
      "[err] Error- sequence skipped from 3:4 to 48; 43 packets lost\n"
      "  3:          49: Received Data in  0.250000s from 10.0.0.7\n"
      "[err] Error- packet 3:49 arrived 250000 usecs from last one\n"
      "  3:          50: Received Data in  0.000000s from 10.0.0.7\n";
  for (const bool hushed : {false, true}) {
    bench b("-c -E50");
    b.settings.silent = b.settings.remote_run = hushed ? 1 : 0;
    for (int i = 0; i < 50; ++i) b.request(i);
    std::string text;
    for (const list& each :
         {list{9, 0}, {1500, 1}, {700, 2}, {250000, 5}, {10, 4}, {10, 48}, {250000, 49}, {-3600000000, 50}}) {
      world.now += each[0];
      text += handled(&b, each[1] == 49 ? 2 : 1, message(3, 55, 3, each[1]));
    }
    EXPECT_EQ(text, hushed ? "" : lines);
    const test_stats& stats = b.stats;
    EXPECT_EQ(numbers(stats.rx_packets, stats.late_arrivals, stats.batch_first_seq, stats.batch_last_seq),
              (list{8, 1, 0, 50}));
    EXPECT_EQ(numbers(stats.latency_min, stats.latency_max, stats.latency_sum), (list{0, 250000, 252200}));
    EXPECT_EQ(numbers(b.slot(3).outstanding, b.slot(5).outstanding, b.slot(5).responder),
              numbers(1, 0, inet_addr("10.0.0.7")));
  }
}

TEST(Stream, BeginsAnewWithEverySenderAndBatch) {
  bench b("-u");
  b.become_monitor();
  b.settings.silent = 0;
  // Sender, batch, type, sequence; whether it is timed.
  const list cases[] = {{55, 3, 3, 9, 0},
                        {55, 3, 2, 10, 1},
                        {55, 4, 3, 20, 0},
                        {56, 4, 3, 30, 0},
                        {56, 4, 1, 31, 1},
                        {56, 0xFFFFFFFF, 3, 0x1FFFF, 0},
                        {56, 0xFFFFFFFF, 3, 0x20000, 1},
                        {0, 0, 2, 50, 0}};
  const char* const names[] = {"", "Echo Request", " Echo Reply ", "Data"};
  for (const list& each : cases) {
    world.now += 1000;
    const std::string text = handled(&b, 1, message(each[2], each[0], each[1], each[3]));
    EXPECT_TRUE(text.ends_with(names[each[2]] + std::string(each[4] != 0 ? " in  0.001000s from 10.0.0.7\n"
                                                                         : " in  0.000000s from 10.0.0.7\n")))
        << text;
    EXPECT_EQ(numbers(b.settings.process_id, b.run.batch), numbers(each[0], each[1]));
  }
}

TEST(Operation, StreamsBackWhatWasAsked) {
  for (const int packets : {0, 1, 5}) {
    bench b("-u");
    b.become_monitor();
    int sent = 0;
    world.on_send = [&](const sent_datagram& each) {
      EXPECT_EQ(each.bytes, message(3, getpid(), 9, sent, 1472));
      EXPECT_EQ(numbers(each.address, each.port), numbers(inet_addr("10.0.0.7"), htons(8003)));
      EXPECT_NEAR(static_cast<double>(world.now - b.stats.start_time), 20000.0 * sent++, 10005.0);
    };
    EXPECT_EQ(handled(&b, 0, command(static_cast<std::uint32_t>(packets), 20000, 1500)), "");
    EXPECT_EQ(sent, packets);  // the run leaves behind the partner lock and nothing else
    EXPECT_EQ(numbers(b.settings.process_id, b.run.batch, b.stats.tx_packets, b.stats.rx_packets), (list{55, 9, 0, 0}));
  }
}

TEST(Operation, OverTcpLeavesTheConnectionToTheMonitor) {
  bench b("-p");
  b.become_monitor();
  b.connect(SOCK_STREAM);
  EXPECT_EQ(handled(&b, 0, command(2, 1, 61)), "");
  EXPECT_EQ(b.read_from_code(), message(3, getpid(), 9, 0, 21) + message(3, getpid(), 9, 1, 21));
  shutdown(b.peer, SHUT_RDWR);
  EXPECT_EQ(handled(&b, 0, command(2, 1, 61)), "Err- could not send 21 bytes. Sent 0 bytes\n");
  EXPECT_GE(b.run.data_socket, 0);
}
