#include "net/send_burst.h"

#include <algorithm>
#include <cerrno>
#include <functional>

#include "support/expect.h"
#include "wire/bytes.h"

namespace {

struct sent_run {
  list sequences;    // of the datagrams that went out
  std::string text;  // what was printed
  std::uint64_t counted = 0;
};

// A blast whose sends meet the errors of `meets`. Every datagram is whole, zero behind its header, and its slot
// says that it left just now.
sent_run blast(const std::string& arguments, const std::function<int(call)>& meets = nullptr, bool command = false) {
  workbench b(arguments);
  b.settings.remote_run = command;
  const bool icmp = b.settings.udp == 0;
  sent_run result;
  world.meets = meets;
  world.on_send = [&](const byte_vector& frame) {
    const std::int64_t sequence = read_be16(frame.data() + (icmp ? 6 : 14));
    const byte_vector whole =
        icmp ? icmp_message(8, 70000, sequence, byte_vector(72)) : message(1, 70000, 0, sequence, 72);
    EXPECT_EQ(frame, whole);
    EXPECT_LE(world.now - slot_of(&b.run, static_cast<std::uint32_t>(sequence))->tx_time, 10);
    result.sequences.push_back(sequence);
  };
  result.text = said([&] { b.run_to_end(); });
  result.counted = b.stats.tx_packets;
  return result;
}

list from_0_to(std::int64_t count) {
  list all;
  for (std::int64_t i = 0; i < count; ++i) all.push_back(i);
  return all;
}

}  // namespace

TEST(Burst, EveryPacketOnceInOrderInFewCalls) {
  for (const std::string carrier : {"-u -l100", "-l100"}) {
    const sent_run run = blast(carrier + " -i -d1 -e1000");
    EXPECT_EQ(run.sequences, from_0_to(1000));
    EXPECT_EQ(run.counted, 1000U);
    EXPECT_LE(world.send_calls, 16);                                               // 64 packets in each
    EXPECT_EQ(std::count(run.text.begin(), run.text.end(), '\n'), 4) << run.text;  // nothing but host and summary
  }
  // A send time is measured in echo mode, in a sweep, in a traceroute: a call for each.
  for (const std::string arguments : {"-u -a20 -d1 -e20 -T1", "-u -i -d1 -e10 10.0.0.1 10.0.0.2", "-i -t -d1 -e20"}) {
    workbench b(arguments);
    said([&] { b.run_to_end(); });
    EXPECT_EQ(numbers(world.sent, world.send_calls), (list{20, 20})) << arguments;
  }
}

TEST(Burst, GoesOnOneByOneWhereTheKernelDoesNotCut) {
  for (const int error : {EINVAL, EIO, EOPNOTSUPP, EMSGSIZE}) {
    int refusals = 0;
    const sent_run run = blast("-u -l100 -i -d1 -e1000", [&](call which) {
      refusals += which == call::sendmsg ? 1 : 0;
      return which == call::sendmsg ? error : 0;
    });
    EXPECT_EQ(run.sequences, from_0_to(1000)) << error;
    EXPECT_EQ(refusals, 1) << error;  // it does not ask again
    EXPECT_EQ(run.text.find("Err-"), std::string::npos);
  }
  blast("-u -l100 -i -d1 -e1000", [](call which) { return which == call::sendmsg ? ADD_FAILURE(), 0 : 0; }, true);
}

TEST(Burst, RefusedPacketsAreTold) {
  const std::string line = "Err- could not send 72 bytes, sent -1 bytes\n";
  const struct {
    bool command;
    int error;
    std::size_t told;  // at most: of a command's stream once, and never that its destination is forbidden
  } cases[] = {{.command = false, .error = EPERM, .told = 90},
               {.command = false, .error = EACCES, .told = 90},
               {.command = true, .error = EPERM, .told = 1},
               {.command = true, .error = EACCES, .told = 0}};
  for (const auto& [command, error, told] : cases) {
    int attempts = 0;  // the error that ends a call is not told; the next call meets it again, at its first packet
    const sent_run run = blast(
        "-u -l100 -i -d1 -e90", [&](call which) { return which == call::sendmsg || attempts++ % 8 > 5 ? error : 0; },
        command);
    std::size_t lines = 0;
    for (std::size_t at = 0; (at = run.text.find(line, at)) != std::string::npos; at += line.size()) ++lines;
    EXPECT_LT(run.sequences.size(), 90U);
    EXPECT_EQ(lines, std::min(told, 90 - run.sequences.size()));
    EXPECT_EQ(run.counted, 90U);
    EXPECT_EQ(std::adjacent_find(run.sequences.begin(), run.sequences.end(), std::greater_equal<>()),
              run.sequences.end());  // in order, none twice
  }
}

TEST(Burst, AFullBufferIsWaitedForAndEveryPacketHasItsOwnSendTime) {
  for (const std::string carrier : {"-u -l100", "-l100"}) {
    int room = 10;  // packets; 35 ms after it is used up there is as much again
    std::int64_t room_comes = 0;
    bool interrupted = false;  // every other call by a signal, which is no refusal
    const sent_run run = blast(carrier + " -i -d1 -e100", [&](call which) {
      if (which == call::sendmsg) return EINVAL;
      if ((interrupted = !interrupted)) return EINTR;
      if (room == 0 && world.now >= room_comes) room = 10;
      if (room == 0) return EAGAIN;
      if (--room == 0) room_comes = world.now + 35000;
      return 0;
    });
    EXPECT_EQ(run.text.find("Err-"), std::string::npos);
    EXPECT_GE(world.now - simulated_world().now, 9 * 35000);
    EXPECT_EQ(run.sequences, from_0_to(100));
    EXPECT_EQ(run.counted, 100U);
  }
  for (const std::string options : {"-u -i -d1 -S2", "-i -d1 -S2", "-u -i -d1000 -S2", "-u -a9 -d1 -S2"}) {
    std::int64_t began = 0;
    const sent_run stuck = blast(options, [&began](call /*which*/) {
      if (began == 0) began = world.now;
      return EAGAIN;
    });
    EXPECT_EQ(stuck.counted, 0U);
    EXPECT_LE(world.now - began, 2020000) << options;
  }
}
