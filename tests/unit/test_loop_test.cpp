#include "engine/test_loop.h"

#include "support/expect.h"
#include "wire/remote_command.h"

TEST(EchoRun, OutlivesEveryStepOfTheClock) {
  for (const std::int64_t step : {3600000000, -3600000000}) {
    for (const std::int64_t moment : {50000, 100001, 100500, 199000, 500000}) {  // awaiting an answer, or the next
      for (const std::string arguments : {"-e8", "-e8 -T100001", "-e8 -i"}) {    // answered, not answered, not asked
        bench b(arguments);
        world.after(moment, [step] {
          world.now += step;
          for (auto& [time, event] : std::exchange(world.events, {})) world.events.emplace(time + step, event);
        });
        const bool answered = arguments == "-e8";
        b.connect(SOCK_DGRAM);
        world.on_send = [&](const byte_vector& request) {
          const byte_vector answer = datagram(with_checksum(patched(request, 0, {0})));
          if (answered) world.after(1000, [&b, answer] { b.write_to_code(answer); });
        };
        const std::string text = said([&] { run_test(&b.settings, &b.stats, &b.run, nullptr); });
        const std::int64_t undisturbed = 8 * (answered ? 100001 : 200001);
        EXPECT_LE(world.now - step - simulated_world().now, undisturbed + 200001) << step << " at " << moment;
        EXPECT_EQ(b.stats.tx_packets, 8U);
        for (const char* odd : {"-", "In  0.0"}) EXPECT_EQ(text.find(odd), std::string::npos) << text;
      }
    }
  }
}

TEST(Commander, EveryPacketOfTheStreamGetsItsSlot) {
  bench b("-c -E3");
  const command_body command = {};
  EXPECT_EQ(send_test_packet(&b.settings, &b.run, &b.stats, &command), 0);
  EXPECT_EQ(numbers(b.slot(0).outstanding, b.slot(2).outstanding, b.slot(3).outstanding), (list{1, 1, 0}));
}
