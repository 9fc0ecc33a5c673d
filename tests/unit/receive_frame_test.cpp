#include "net/receive_frame.h"

#include <stdio_ext.h>

#include "base/signals.h"
#include "support/expect.h"

// What the first 25 of the 40 bytes of a message come to, and after how long, when the rest follows in so many pieces,
// each `pause` usec after the one before. Of several stops in a process only the first raises a signal; that is noted
// for good.
static std::string receive_pieces(std::int64_t pause, int pieces, bool stop = false) {
  workbench b("-c -p -s");
  b.connect(SOCK_STREAM);
  const byte_vector whole = message(3, 5, 0, 7, 40);
  world.deliver(0, prefix(whole, 25));
  for (int i = 0; i < pieces; ++i) {
    world.deliver(pause * (i + 1), {whole.begin() + 25 + i * 15 / pieces, whole.begin() + 25 + (i + 1) * 15 / pieces});
  }
  if (stop && stop_signal() == 0) world.after(0, [] { std::raise(SIGTERM); });
  const std::int64_t start = world.now;
  const int result = receive_one_frame(&b.settings, &b.run, &b.stats, 1000);
  return std::to_string(result) + " after " + std::to_string(world.now - start);
}

TEST(Receiver, WaitsForTheRestOfAMessageButNotForEver) {
  EXPECT_EQ(receive_pieces(9999999, 3), "1 after 29999997");
  EXPECT_EQ(receive_pieces(10000001, 1), "-1 after 10000000");
  apart([] {  // a stop signal leaves the rest, all of it, a tenth of a second
    catch_signals(true);
    EXPECT_EQ(receive_pieces(99999, 1, true), "1 after 99999");
    EXPECT_EQ(receive_pieces(100001, 1, true), "-1 after 100000");
    EXPECT_EQ(receive_pieces(33334, 3, true), "-1 after 100000");
  });
}

// A long wait begins in the read. It ends no sooner for a signal that is noted nowhere, and what was printed is out.
TEST(Receiver, WaitsAsLongInAReadAsElsewhere) {
  for (const std::int64_t wait : {8000, 49999, 50000, 1000000}) {
    for (const std::string printed : {"", "a line\n"}) {
      for (const bool interrupted : {false, true}) {
        workbench b("-u -s");
        b.connect(SOCK_DGRAM);
        b.settings.partner_mode = 1;
        b.run.reads_can_wait = 1;
        world.after(5000, [=] {
          EXPECT_EQ(__fpending(stdout), 0U);
          world.interrupted = interrupted;
        });
        const std::int64_t start = world.now;
        const auto receive = [&] { return receive_one_frame(&b.settings, &b.run, &b.stats, wait); };
        EXPECT_EQ(said(frame_none, [&] { return std::fputs(printed.c_str(), stdout), receive(); }), printed);
        EXPECT_EQ(world.now - start, wait);
        world.deliver(7000, message(3, 5, 0, 7, 40));  // ends it at once
        EXPECT_EQ(receive(), frame_counted);
        EXPECT_EQ(world.now - start, wait + 7000);
      }
    }
  }
  apart([] {
    catch_signals(true);
    workbench b("-u -s");
    b.connect(SOCK_DGRAM);
    b.settings.partner_mode = 1;
    b.run.reads_can_wait = 1;
    world.after(5000, [] { world.interrupted = std::raise(SIGTERM) == 0; });
    const std::int64_t start = world.now;
    EXPECT_EQ(receive_one_frame(&b.settings, &b.run, &b.stats, 1000000), frame_none);
    EXPECT_EQ(world.now - start, 5000);
  });
}

TEST(Receiver, LongDatagramsAreWhole) {
  workbench udp("-u");
  udp.connect(SOCK_DGRAM);
  std::size_t reply_bytes = 0;
  world.on_send = [&](const byte_vector& reply) { reply_bytes = reply.size(); };
  world.deliver(0, message(1, 70000, 0, 0, 9000));
  (void)receive_one_frame(&udp.settings, &udp.run, &udp.stats, 1000);
  EXPECT_EQ(reply_bytes, 9000U);
  workbench icmp("-l9000");
  icmp.connect(SOCK_DGRAM);
  icmp.request(0);
  world.deliver(0, datagram(icmp_message(0, 70000, 0, byte_vector(9000, 7))));
  EXPECT_EQ(receive_one_frame(&icmp.settings, &icmp.run, &icmp.stats, 1000), frame_counted);
}

TEST(Receiver, FlushesUntilTwentyMillisecondsOfSilence) {
  workbench b;
  b.connect(SOCK_DGRAM);
  for (const int number : {1, 2, 3})  // the second is empty, which is not the end
    world.deliver(19000 * number, byte_vector(number == 2 ? 0 : 5));
  world.deliver(57000 + 21000, byte_vector(5));  // too late
  const std::int64_t start = world.now;
  EXPECT_EQ(said([&] { flush_pending_frames(b.run.data_socket); }), "[err] Flushed 3 frames\n");
  EXPECT_EQ(world.now - start, 57000 + 20000);
}
