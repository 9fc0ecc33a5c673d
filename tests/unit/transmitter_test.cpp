#include "net/transmitter.h"

#include "support/expect.h"
#include "wire/remote_command.h"

static std::string sent(bench* b) {
  const command_body body = {};
  return said(0, [&] { return send_test_packet(&b->settings, &b->run, &b->stats, &body); });
}

TEST(Transmitter, FramesOfEveryCarrierAndKind) {
  for (const std::string arguments : {"", "-U", "-u", "-u -U"}) {
    bench b("-e5 " + arguments);
    b.run.transmit_length = 21;
    b.run.batch = 6;
    for (const std::uint32_t sequence : {0U, 65536U, 0x7FFFFFFFU, 0xFFFFFFFEU}) {
      b.run.current_tx__packet = sequence;
      EXPECT_EQ(sent(&b), "");
      const bool udp = b.settings.udp != 0;
      const bool one_way = b.settings.unidirectional != 0;
      EXPECT_EQ(world.sent.back().bytes, udp ? message(one_way ? 3 : 1, 70000, 6, sequence, 21)
                                             : icmp_message(one_way ? 0 : 8, 70000, sequence, byte_vector(13)));
      EXPECT_EQ(numbers(world.sent.back().address, world.sent.back().port),
                numbers(inet_addr("10.0.0.1"), udp ? htons(8004) : 0));
      const packet_slot& slot = b.slot(sequence);
      EXPECT_EQ(numbers(slot.outstanding, slot.sequence, slot.tx_time), numbers(1, sequence, world.now));
      EXPECT_EQ(b.run.current_tx__packet, sequence + 1);
    }
    EXPECT_EQ(b.stats.tx_packets, 4U);
  }
}

TEST(Transmitter, CommandArmsTheSlotsOfItsStream) {
  for (const std::uint32_t echoes : {0U, 1U, 65536U}) {
    bench b("-c -E" + std::to_string(echoes));
    b.slot(3).responder = 77;
    EXPECT_EQ(sent(&b), "");
    std::uint32_t armed = 0;
    for (int i = 0; i < 65536; ++i) armed += b.slot(i).outstanding;
    EXPECT_EQ(numbers(armed, b.slot(3).responder, b.slot(65535).sequence),
              echoes == 65536 ? (list{65536, 0, 65535}) : (list{1, 77, 0}));
  }
}
