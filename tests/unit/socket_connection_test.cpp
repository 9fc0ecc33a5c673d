#include "net/socket_connection.h"

#include <cerrno>

#include "base/signals.h"
#include "net/message_handler.h"
#include "net/receive_frame.h"
#include "support/expect.h"

static bool has_ended(int socket) {
  char byte = 0;
  return recv(socket, &byte, 1, MSG_DONTWAIT) == 0;
}

TEST(Stall, BytesGoOutOnceAndInOrder) {
  byte_vector bytes(1000000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7919 / 256);
  workbench b;
  b.connect(SOCK_STREAM);
  byte_vector arrived;
  for (int i = 1; i < 50; ++i) world.after(30000 * i, [&] { world.drain(&arrived); });
  const stream_result result = send_all(b.run.data_socket, bytes, {.longest_usec = 60000000, .discard_input = false});
  EXPECT_EQ(numbers(result.sent, result.stalled), (list{1000000, 0}));
  world.drain(&arrived);
  EXPECT_EQ(arrived, bytes);
}

TEST(Stall, EndsWithThePatienceOrAStopSignal) {
  apart([] {
    catch_signals(true);
    for (const std::int64_t patience : {500000, 60000000}) {
      workbench b;
      b.connect(SOCK_STREAM);
      world.after(2000000, [] { std::raise(SIGTERM); });
      const std::int64_t start = world.now;
      const byte_vector bytes(1000000);
      EXPECT_TRUE(send_all(b.run.data_socket, bytes, {.longest_usec = patience, .discard_input = false}).stalled);
      EXPECT_EQ(world.now - start, std::min<std::int64_t>(patience, 2000000));
    }
  });
}

// A monitor gives a peer that does not read ten seconds, then ends the connection: half a message or half a reply would
// shift all that follows. The socket is the monitor's to close.
TEST(Monitor, EndsTheConnectionOfAPeerThatDoesNotRead) {
  byte_vector body = patched(byte_vector(144), 4, be32(40) + be32(40));  // 40 packets of 65495 bytes
  body = patched(patched(body, 32, be32(65535)), 84, be32(1));
  const byte_vector request = message(1, 55, 0, 0, 65495);
  const byte_vector operation = patched(message(4, 55, 0, 0, 164), 20, body);
  for (const byte_vector& each : {request, operation}) {
    workbench b("-p --server");
    b.connect(SOCK_STREAM);
    const std::int64_t start = world.now;
    const std::string text = said([&] {
      for (int i = 0; i < 40 && world.now == start; ++i) b.receive_message(patched(each, 12, be32(i)));
    });
    EXPECT_EQ((world.now - start) / 1000000, 10);
    const std::size_t half = world.drain() % 65495;
    EXPECT_EQ(text, each == request ? ""
                                    : "Err- could not send " + std::to_string(65495 - half) + " bytes. Sent " +
                                          std::to_string(half) + " bytes\n");
    EXPECT_TRUE(has_ended(world.peer));
    EXPECT_TRUE(has_ended(b.run.data_socket));  // for the monitor too, but not closed
  }
}

TEST(EchoRun, OfAClosedConnectionEndsWithoutSpinning) {
  // It finds the end by reading, and by sending. With -S9 it would come to an end even if it never found it.
  const std::pair<std::string, int> ways[] = {{"-a9", SHUT_WR}, {"-a9", SHUT_RDWR}, {"-i", SHUT_RDWR}};
  for (const auto& [options, end] : ways) {
    workbench b("-p -e5 -d10000 -T10000 -S9 " + options);
    b.connect(SOCK_STREAM);
    shutdown(world.peer, end);
    const std::string text = said([&] { b.run_to_end(); });
    const char* const line = "Err- could not send 20 bytes. Sent 0 bytes\n";
    EXPECT_EQ(text.find(line), 0U) << text;
    EXPECT_EQ(text.rfind(line), 0U) << text;  // nothing more is sent
    EXPECT_EQ(b.run.data_socket, -1);
  }
  apart([] {
    catch_signals(true);
    for (const std::string count : {"-e1", "-e9"}) {  // all was sent, or a stop signal came
      workbench b("-p -a9 -d10001 -T1000 " + count);
      b.connect(SOCK_STREAM);
      if (count == "-e9") world.after(100, [] { std::raise(SIGTERM); });
      world.after(10900, [] { shutdown(world.peer, SHUT_WR); });  // took the request, never answers
      b.run_to_end();
      EXPECT_EQ(numbers(b.stats.tx_packets, b.stats.lost_packets, b.run.data_socket), (list{1, 1, -1}));
      EXPECT_LT(world.readings, 100);
    }
  });
}

TEST(Commander, SendsItsCommandOnceAFullConnectionHasRoom) {
  workbench b("-c -p -e1 -E1 -s");
  b.connect(SOCK_STREAM);
  world.fill();
  world.after(50000, [] { world.drain(); });
  world.deliver(60000, message(3, 55, 0, 0, 100));
  said([&] { b.run_to_end(); });
  EXPECT_EQ(numbers(world.drain(), b.stats.tx_packets, b.stats.bad_samples), (list{164, 1, 0}));
}

TEST(Accept, GoesOnAfterAConnectionThatIsGone) {
  workbench b("-p --server");
  open_tcp_socket(&b.settings, &b.run);
  const int errors[] = {ECONNABORTED, EAGAIN, EINTR};
  world.meets = [&, next = 0](call which) mutable { return which == call::accept4 && next < 3 ? errors[next++] : 0; };
  accept_test_connection(&b.run);
  EXPECT_EQ(b.run.data_socket, world.own);
  close(b.run.listen_socket);
}
