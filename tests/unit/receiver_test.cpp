#include "net/receiver.h"

#include "support/expect.h"

struct receiver : bench {
  receiver(const std::string& arguments, int type) : bench(arguments) {
    connect(type);
    settings.partner_mode = settings.silent = settings.remote_run = 1;  // every message counts
  }
  // What a frame within `wait` usec comes to, and after how long; then what was printed.
  std::string receive(std::int64_t wait = 1000) {
    const std::int64_t start = world.now;
    int result = 0;
    const std::string text = said([&] { result = receive_one_frame(&settings, &run, &stats, wait); });
    return std::to_string(result) + " after " + std::to_string(world.now - start) + text;
  }
};

TEST(TcpFraming, MessagesOfEveryLengthOneACall) {
  receiver r("-p", SOCK_STREAM);
  for (const std::uint32_t length : {20U, 21U, 1472U, 65536U, 20U}) r.write_to_code(message(3, 5, 0, 7, length));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(r.receive(), "1 after 0");
  EXPECT_EQ(r.receive(), "0 after 1000");
  EXPECT_EQ(r.slot(7).responder, inet_addr("10.0.0.1"));
  for (const std::uint32_t length : {0U, 1U, 19U, 65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    struct receiver refusing("-p", SOCK_STREAM);
    refusing.write_to_code(patched(message(3, 5, 0, 7), 16, be32(length)) + byte_vector(100000));
    EXPECT_EQ(refusing.receive(), "-1 after 0") << length;
  }
}

TEST(TcpFraming, PiecesPausesAndEnds) {
  const byte_vector whole = message(3, 5, 0, 7, 40);
  const std::pair<std::int64_t, const char*> cases[] = {// of ten seconds the reader waits no longer; 0: the end
                                                        {9999999, "1 after 9999999"},
                                                        {10000001, "-1 after 10000000"},
                                                        {0, "-1 after 0"}};
  for (std::size_t cut = 1; cut < whole.size(); ++cut) {
    for (const auto& [pause, expected] : cases) {
      receiver r("-p", SOCK_STREAM);
      r.write_to_code(prefix(whole, cut));
      world.after(pause, [&] { r.write_to_code({whole.data() + cut, whole.data() + whole.size()}); });
      if (pause == 0) shutdown(r.peer, SHUT_WR);
      EXPECT_EQ(r.receive(), expected) << cut;
    }
  }
}

TEST(Receive, WaitsExactlyForDatagramsOfEveryKind) {
  receiver r("-u -D", SOCK_DGRAM);
  EXPECT_EQ(r.receive(2147483647), "0 after 2147483647");
  world.after(700, [&] { r.write_to_code(message(3, 5, 0, 7)); });
  EXPECT_EQ(r.receive(), "1 after 700");
  r.write_to_code(byte_vector(19));
  EXPECT_EQ(r.receive(0), "0 after 0");
  r.settings.udp = r.settings.partner_mode = r.settings.remote_run = 0;
  r.request(7);
  r.write_to_code(datagram(icmp_message(0, 5, 7)));  // the same socket as ICMP reads it
  EXPECT_EQ(r.receive(1500000), "1 after 0Select for 1.500000\n");
  r.write_to_code({});
  EXPECT_EQ(r.receive(0), "-1 after 0Select for 0.000000\n[err] Error- zero length recvfrom on an icmp socket\n");
}
