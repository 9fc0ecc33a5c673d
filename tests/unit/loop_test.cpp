#include "engine/loop.h"

#include <algorithm>
#include <functional>

#include "base/signals.h"
#include "engine/release.h"
#include "net/socket_wait.h"
#include "support/expect.h"

// Every request is answered `usec` after it was sent.
static void answer_after(workbench* b, std::int64_t usec) {
  b->connect(SOCK_DGRAM);
  world.on_send = [=](const byte_vector& request) {
    world.deliver(usec, datagram(with_checksum(patched(request, 0, {0}))));
  };
}

TEST(EchoRun, SendsAgainAfterEveryAnswer) {  // were it to read what is queued first, each would print a bitrate line
  workbench b("-e500 -a10 -d0 -A50 -s");
  answer_after(&b, 1000);
  const std::string text = said([&] { b.run_to_end(); });
  const auto lines = std::count(text.begin(), text.end(), '\n') - 6;  // the rest is the host and the summary
  EXPECT_EQ(lines, 9 + 10) << text;  // one at every fiftieth, but for each that is outstanding when the last is sent
}

// The slots of a small window come round again soon: request 64 of a window of one has the slot of request 0.
TEST(EchoRun, TellsARequestFromOthersOfItsSlot) {
  for (const bool udp : {false, true}) {
    workbench b(udp ? "-u -e65 -a1 -d0 -T100000 -s" : "-e65 -a1 -d0 -T100000 -s");
    b.connect(SOCK_DGRAM);
    byte_vector first;
    world.on_send = [&](const byte_vector& request) {
      if (world.sent == 1) first = request;
      const byte_vector answered = world.sent == 65 ? first : request;
      const byte_vector answer =
          udp ? patched(answered, 0, be32(2)) : datagram(with_checksum(patched(answered, 0, {0})));
      if (world.sent != 1) world.deliver(50, answer);
    };
    said([&] { b.run_to_end(); });
    EXPECT_EQ(numbers(b.stats.rx_packets, b.stats.lost_packets), (list{63, 2})) << udp;
  }
  workbench b("-u -e200 -a200 -d1 -s");  // all at once, and the newest is answered first
  b.connect(SOCK_DGRAM);
  world.on_send = [](const byte_vector& request) {
    world.deliver(9000 - 10 * world.sent, patched(request, 0, be32(2)));
  };
  said([&] { b.run_to_end(); });
  EXPECT_EQ(b.stats.rx_packets, 200);
}

// An echo test obeys commands too; the stream that it sends then is a run of its own. With -A it has another table.
TEST(EchoRun, KeepsItsRequestsThroughACommand) {
  const auto text_with = [](const std::string& option, std::int64_t packets) {
    workbench b("-u -e3 -a3 -d1000 -T5000" + option);
    b.connect(SOCK_DGRAM);
    const byte_vector command = patched(message(4, 70000, 0, 0, 164), 28, be32(packets));
    world.on_send = [&](const byte_vector&) {
      if (world.sent == 3) world.deliver(1500, command);
    };
    const std::string text = said([&] { b.run_to_end(); });
    EXPECT_EQ(numbers(b.stats.tx_packets, b.stats.lost_packets), (list{3, 3})) << text;
    return text;
  };
  for (const std::int64_t packets : {0, 1, 2, 3}) EXPECT_EQ(text_with("", packets), text_with(" -A65536", packets));
}

TEST(EchoRun, TakesNoNoticeOfADateThatIsSet) {
  for (const std::string arguments : {"-e8", "-e8 -T100001", "-e8 -i", "-u -i -d1 -S2 -e"}) {
    const auto text_with = [&](std::int64_t step, std::int64_t moment) {
      workbench b(arguments);
      world.after(moment, [step] { world.set_by = step; });
      answer_after(&b, 1000);
      if (arguments != "-e8") world.on_send = [](const byte_vector&) { world.now += 50; };  // what a send takes
      return said([&] { b.run_to_end(); });
    };
    const std::string undisturbed = text_with(0, 0);
    for (const std::int64_t step : list{3600000000, -3600000000, -200000, 20 * 365 * 86400000000}) {
      for (const std::int64_t moment : {50000, 100001, 100500, 199000, 500000, 700900})  // awaiting an answer or a send
        EXPECT_EQ(text_with(step, moment), undisturbed) << arguments << " " << step << " at " << moment;
    }
  }
}

TEST(Blast, OfALongReleaseEndsWithAStopSignal) {
  apart([] {
    catch_signals(true);
    workbench b("-u -i -d1 -e9000");  // all of them due at once
    world.on_send = [](const byte_vector&) {
      if (world.sent == 200) std::raise(SIGTERM);
    };
    b.run_to_end();
    EXPECT_LT(world.sent, 300);
  });
}

// When each packet leaves, in usec since the start, down to 10. Waits end 70 usec late; the one that should end at
// `due` ends `lateness` usec late.
static list send_times(const std::string& arguments, std::int64_t due = 0, std::int64_t lateness = 70) {
  workbench b(arguments + " -m -T9000000");
  const std::int64_t start = world.now;
  world.overshoot = 70;
  world.after(due - 300, [lateness] { world.overshoot = lateness; });
  world.after(due + lateness + 1, [] { world.overshoot = 70; });
  list times;
  world.on_send = [&](const byte_vector&) { times.push_back((world.now - start) / 10 * 10); };
  said([&] { b.run_to_end(); });
  return times;
}

TEST(Schedule, ReleasesAreDueOneDelayAfterTheOneBeforeWasDue) {
  for (const std::string path : {"-a99", "-i"}) {
    EXPECT_EQ(send_times(path + " -e5 -d20000"), (list{0, 20070, 40070, 60070, 80070}));
    EXPECT_EQ(send_times(path + " -e5 -d4000"), (list{0, 0, 4070, 8070, 12070}));  // the first burst, its remainder
    // Late by what a wait may be late: the schedule stays, and the credit of what was missed goes out.
    EXPECT_EQ(send_times(path + " -e5 -d20000", 40000, 1990), (list{0, 20070, 41990, 60070, 80070}));
    EXPECT_EQ(send_times(path + " -e8 -d3000", 6000, 1500), (list{0, 0, 0, 3070, 7500, 9070, 12070, 15070}));
    // A credit that has just become two packets sends both, and the next one still comes a delay later.
    EXPECT_EQ(send_times(path + " -e7 -d3400", 6800, 200), (list{0, 0, 3470, 7000, 7000, 10470, 13870}));
    // Later than that: it begins anew.
    EXPECT_EQ(send_times(path + " -e5 -d20000", 40000, 2010), (list{0, 20070, 42010, 62080, 82080}));
    EXPECT_EQ(send_times(path + " -e8 -d3000", 6000, 7500), (list{0, 0, 0, 3070, 13500, 13500, 13500, 16570}));
  }
}

TEST(TcpRun, WithNothingToSendDoesNotSpin) {
  // A monitor that never reads; a test whose peer does not, so that the connection is full.
  for (const char* arguments : {"-p --server -i -S2 -d1000", "-p -e99 -a99 -d1 -l65535 -S2 -T900000"}) {
    workbench b(arguments);
    b.connect(SOCK_STREAM);
    said([&] { b.run_to_end(); });
    EXPECT_LT(world.readings, 20000) << arguments;
  }
}

// The window is one packet a millisecond; the peer reads nothing for the first 100.
TEST(TcpRun, KeepsTheCreditOfWhatAFullConnectionCutShort) {
  workbench b("-p -e300 -a300 -d1000 -l8000 -T900000 -m");
  b.connect(SOCK_STREAM);
  const std::function<void()> read_all = [&] {
    world.drain();
    world.after(1000, read_all);
  };
  std::uint32_t sent_until_then = 0;
  world.after(90000, [&] { sent_until_then = b.run.current_tx__packet; });
  world.after(100000, read_all);
  std::uint32_t sent = 0;
  world.after(310000, [&] { sent = b.run.current_tx__packet; });
  said([&] { b.run_to_end(); });
  EXPECT_LT(sent_until_then, 90U);
  EXPECT_EQ(sent, 300U);
}

TEST(Commander, ReadsAwayWhatAMonitorStillSendsForAnother) {
  workbench b("-c -e1 -E2 -s");
  b.connect(SOCK_DGRAM);
  for (int i = 0; i < 3; ++i) world.deliver(15000 * i, message(3, 55, 0, i, 100));
  const std::int64_t start = world.now;
  world.on_send = [&](const byte_vector&) {
    EXPECT_EQ(world.now, start + 30000 + 20000);  // behind 20 ms of silence
    for (int i = 0; i < 2; ++i) world.deliver(5000 * i, message(3, 55, 0, i, 100));
  };
  const std::string text = said([&] { b.run_to_end(); });
  EXPECT_NE(text.find("Flushed 3 frames\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" Pkts:   2/2 "), std::string::npos) << text;
  EXPECT_EQ(b.stats.start_time, start + 50000);
}

TEST(Commander, OpensNoBatchForACommandThatCouldNotLeave) {
  for (const char* arguments : {"-c -S1 -E2", "-c -p -S1 -E2"}) {
    workbench b(arguments);
    b.connect(b.settings.tcp != 0 ? SOCK_STREAM : SOCK_DGRAM);
    world.meets = [](call which) { return which == call::sendto ? world.now += 10000, EAGAIN : 0; };
    if (b.settings.tcp != 0) world.fill();
    const std::string text = said([&] { b.run_to_end(); });
    EXPECT_TRUE(text.starts_with("Test complete! Total test time:    1.0")) << text;  // and nothing before it
    EXPECT_TRUE(text.ends_with("\n[err] Destination IP = 10.0.0.1\n")) << text;
    EXPECT_EQ(numbers(b.run.batch, b.stats.bad_samples, b.run.connection_is_gone), (list{0, 0, 0}));
  }
}

TEST(Commander, EveryPacketOfTheStreamGetsItsSlotAndTheCommandLeavesTheBuffer) {
  workbench b("-c -E3");
  command_body command = {};
  command.bytes[7] = 1;
  EXPECT_EQ(release_packets(1, &b.settings, &b.run, &b.stats, &command), release_end::complete);
  EXPECT_EQ(numbers(b.slot(0).outstanding, b.slot(2).outstanding, b.slot(3).outstanding), (list{1, 1, 0}));
  EXPECT_EQ(transmit_buffer[20 + 7], 0);
}

TEST(Commander, FiguresOfEveryBatchBeginAnew) {
  workbench b("-c -e3 -E3 -v -s -T0 -d1000");
  b.connect(SOCK_DGRAM);
  world.on_send = [&](const byte_vector& operation) {
    const int batch = operation[11];
    for (int i = 0; i < 3; i += batch == 2 ? 2 : 1)  // a packet of the last one is lost: no two follow each other
      world.deliver((batch == 0 ? 5000 : 900) * i, message(3, 55, batch, i, 100));
  };
  const std::string text = said([&] { b.run_to_end(); });
  EXPECT_NE(text.find(" 2 late"), std::string::npos) << text;
  EXPECT_NE(text.find("m/M/a   5.000/  5.000/"), std::string::npos) << text;
  EXPECT_NE(text.find(" 0 late"), std::string::npos) << text;
  EXPECT_NE(text.find("m/M/a   0.900/  0.900/"), std::string::npos) << text;
  EXPECT_NE(text.find("m/M/a   0.000/  0.000/"), std::string::npos) << text;
}

TEST(IcmpMonitor, LocksOnTheFirstSenderThatItHears) {
  apart([] {
    catch_signals(false);
    workbench b;
    b.settings.partner_mode = 1;
    b.connect(SOCK_DGRAM);
    for (int i = 0; i < 3; ++i) world.deliver(1000 * i, datagram(icmp_message(0, 1234, i)));
    world.after(5000, [] { std::raise(SIGTERM); });
    b.run_to_end();
    EXPECT_EQ(numbers(b.settings.process_id, b.stats.rx_packets), (list{1234, 2}));
  });
}

TEST(Debugging, TellsEverySendAndWait) {
  workbench b("-e2 -D -m -T1000000 -d5000");
  const std::string text = said([&] { b.run_to_end(); });
  for (const char* part : {"0.000000: Tx one, process_id = 00011170, *current_tx__packet = 0, batch = 0\n",
                           "\nSelect for 1.005000\n", "\n1.005000: Tx one, ", ", *current_tx__packet = 1, batch = 0\n"})
    EXPECT_NE(text.find(part), std::string::npos) << part << text;
  workbench commander("-c -D");
  const command_body command = {};
  commander.run.batch = 7;
  const auto send = [&] { return send_test_packet(&commander.settings, &commander.run, &commander.stats, &command); };
  EXPECT_TRUE(said(0, send).ends_with(", *current_tx__packet = 0, batch = 7\n"));
  workbench stream("-u -i -D");  // that a monitor was commanded to send
  stream.settings.remote_run = 1;
  EXPECT_EQ(said([&] { stream.run_to_end(); }), "");
}

TEST(Progress, IsToldAtOnceAndDisturbsNoSchedule) {
  const char* const told = "So far: 1 sent.*(So far: 2 sent[^\n]*\nnext\n.*){2}So far: 256 sent[^\n]*\nnext\n";
  const auto run = [] {
    catch_signals(true);
    std::raise(SIGQUIT);  // before the run, while it connects
    std::int64_t moment_usec = 1;
    (void)wait_on_socket(-1, socket_event::readable, &moment_usec);
    for (const std::string path : {"-a99 -m", "-i"}) {  // while it waits for answers, and while it rests
      workbench b(path + " -e4 -d20000");
      list times;
      world.on_send = [&, start = world.now](const byte_vector&) { times.push_back((world.now - start) / 10 * 10); };
      world.after(25000, [] {
        std::raise(SIGQUIT);
        world.interrupted = true;
      });
      world.after(25001, [] { std::fputs("next\n", stderr); });
      b.run_to_end();
      EXPECT_EQ(times, (list{0, 20000, 40000, 60000}));
    }
    workbench commander("-c -e1 -E2 -s");  // in a batch, which goes on
    commander.connect(SOCK_DGRAM);
    world.on_send = [&](const byte_vector&) {
      world.deliver(0, message(3, 55, 0, 0));
      world.after(25000, [] { std::raise(SIGQUIT); });
      world.deliver(50000, message(3, 55, 0, 1));
    };
    commander.run_to_end();
    EXPECT_EQ(numbers(commander.stats.rx_packets, commander.stats.bad_samples), (list{2, 0}));
    workbench b("-i -d1 -e1000");  // in a long release
    world.on_send = [](const byte_vector&) {
      if (world.sent == 200) std::raise(SIGQUIT);
      if (world.sent == 300) std::fputs("next\n", stderr);
    };
    b.run_to_end();
  };
  apart(run, told);
}
