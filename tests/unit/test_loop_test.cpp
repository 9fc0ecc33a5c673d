#include "engine/test_loop.h"

#include "support/expect.h"
#include "wire/remote_command.h"

static void run(bench* b) {
  const command_body command = {};
  run_test(&b->settings, &b->stats, &b->run, &command);
}

// Every request is answered after `usec`.
static void answer_after(bench* b, std::int64_t usec) {
  b->connect(SOCK_DGRAM);
  world.on_send = [=](const sent_datagram& request) {
    world.after(usec, [=] { b->write_to_code(datagram(with_checksum(patched(request.bytes, 0, {0})))); });
  };
}

TEST(EchoRun, SendsOneDelayApartAndEndsWithTheLastAnswer) {
  bench b("-l84 -e1 10.0.0.1 10.0.0.3");  // the next is due when more than the delay has passed
  answer_after(&b, 1234);
  EXPECT_EQ(said([&] { run(&b); }),
            "           0: Received  Echo Reply  in  0.001234s from 10.0.0.1\n"
            "           1: Received  Echo Reply  in  0.001234s from 10.0.0.1\n"
            "           2: Received  Echo Reply  in  0.001234s from 10.0.0.1\n"
            "In  0.201236s, 3 tx pkts, 3 rx pkts, 0 missing, 0 invalid\n   14.908 tx/s,    14.908 rx/s\n"
            "IP data rate     1.670KB/s,    13.357Kb/s\nMin =  0.001234, Max =  0.001234, Avg =  0.001234, \n\n"
            "[err] Start IP= 10.0.0.1  End IP= 10.0.0.3\n");
}

TEST(EchoRun, OutlivesEveryStepOfTheClock) {
  for (const std::int64_t step : {3600000000, -3600000000}) {
    for (const std::int64_t moment :
         {50000, 100001, 100500, 199000, 500000}) {  // awaiting an answer, or the next request
      for (const std::string arguments : {"-e8", "-e8 -T100001", "-e8 -i"}) {  // answered, not answered, not asked
        bench b(arguments);
        const bool answered = arguments == "-e8";
        if (answered) answer_after(&b, 1000);
        world.after(moment, [step] {
          world.now += step;
          for (auto& [time, event] : std::exchange(world.events, {})) world.events.emplace(time + step, event);
        });
        const std::string text = said([&] { run(&b); });
        const std::int64_t undisturbed = 8 * (answered ? 100001 : 200001);
        EXPECT_LE(world.now - step - simulated_world().now, undisturbed + 200001)
            << arguments << step << " at " << moment;
        EXPECT_EQ(numbers(b.stats.tx_packets, text.find('-')), (list{8, -1})) << text;
      }
    }
  }
}

TEST(EchoRun, DurationEndsItAtTheNextPass) {
  bench b("-S2 -s");
  answer_after(&b, 1000);
  said([&] { run(&b); });
  EXPECT_EQ(numbers(b.stats.tx_packets, b.stats.end_time - b.stats.start_time), (list{21, 2100021}));
}
