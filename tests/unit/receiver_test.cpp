#include "net/receiver.h"

#include "support/expect.h"

// What a frame comes to, and after how long.
static std::string receive(bench* b) {
  const std::int64_t start = world.now;
  const int result = receive_one_frame(&b->settings, &b->run, &b->stats, 1000);
  return std::to_string(result) + " after " + std::to_string(world.now - start);
}

TEST(TcpFraming, LengthsPiecesAndPauses) {
  for (const std::uint32_t length : {20U, 21U, 65536U, 0U, 19U, 65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    bench b("-c -p -s");
    b.connect(SOCK_STREAM);
    b.write_to_code(patched(message(3, 5, 0, 7, 65556), 16, be32(length)));
    EXPECT_EQ(receive(&b), length >= 20 && length <= 65536 ? "1 after 0" : "-1 after 0") << length;
    const std::size_t left = 65556 - (length >= 20 && length <= 65536 ? length : 20);
    EXPECT_EQ(receive_all(b.run.data_socket, byte_vector(left).data(), static_cast<int>(left)), left);
  }
  const byte_vector whole = message(3, 5, 0, 7, 40);
  // Of ten seconds the reader waits no longer; 0: the end.
  const std::pair<int, const char*> cases[] = {
      {9999999, "1 after 9999999"}, {10000001, "-1 after 10000000"}, {0, "-1 after 0"}};
  for (std::size_t cut = 1; cut < whole.size(); ++cut) {
    for (const auto& [pause, expected] : cases) {
      bench b("-c -p -s");
      b.connect(SOCK_STREAM);
      b.write_to_code(prefix(whole, cut));
      world.after(pause, [&] { b.write_to_code({whole.data() + cut, whole.data() + whole.size()}); });
      if (pause == 0) shutdown(b.peer, SHUT_WR);
      EXPECT_EQ(receive(&b), expected) << cut;
    }
  }
}

TEST(Receiver, PollsOnceAndReportsWhatCannotBeRead) {
  const std::string broken = "[err] Error- socket error on socket\n";
  for (const std::string mode : {"-u", "-c -s -E9"}) {
    bench b(mode);
    b.connect(SOCK_DGRAM);
    const auto poll = [&] { return static_cast<int>(receive_one_frame(&b.settings, &b.run, &b.stats, 0)); };
    b.request(3);
    b.write_to_code(message(3, 70000, 0, 3));
    EXPECT_EQ(said(mode == "-u" ? 0 : 1, poll), "");
    EXPECT_EQ(b.stats.rx_packets, 1U) << mode;
    EXPECT_EQ(said(0, poll), "");
    const int socket = std::exchange(b.run.data_socket, 60);  // which nothing has open
    for (const std::int64_t wait : {0, 1000})
      EXPECT_EQ(said(-1, [&] { return receive_one_frame(&b.settings, &b.run, &b.stats, wait); }), broken) << mode;
    b.run.data_socket = socket;
  }
}
