#include "net/transmitter.h"

#include "support/expect.h"
#include "wire/remote_command.h"

static std::string sent(bench* b, int result = 0) {
  const command_body body = {};
  return said(result, [&] { return send_test_packet(&b->settings, &b->run, &b->stats, &body); });
}

TEST(Transmitter, FramesOfEveryCarrierAndKind) {
  for (const std::string arguments : {"", "-U", "-u", "-u -U"}) {
    for (const std::uint32_t length : {20U, 21U, 1472U}) {
      bench b("-e5 " + arguments);
      b.run.transmit_length = length;
      b.run.batch = 6;
      for (const std::uint32_t sequence : {0U, 65536U, 0x7FFFFFFFU, 0xFFFFFFFEU}) {
        b.run.current_tx__packet = sequence;
        EXPECT_EQ(sent(&b), "");
        const bool udp = b.settings.udp != 0;
        const bool one_way = b.settings.unidirectional != 0;
        EXPECT_EQ(world.sent.back().bytes, udp ? message(one_way ? 3 : 1, 70000, 6, sequence, length)
                                               : icmp_message(one_way ? 0 : 8, 70000, sequence, zeros(length - 8)));
        EXPECT_EQ(numbers(world.sent.back().address, world.sent.back().port),
                  numbers(inet_addr("10.0.0.1"), udp ? htons(8004) : 0));
        const packet_slot& slot = b.slot(sequence);
        EXPECT_EQ(numbers(slot.outstanding, slot.sequence, slot.slot_index, slot.process_id, slot.tx_time),
                  numbers(1, sequence, sequence & 65535, 4464, world.now));
        EXPECT_EQ(b.run.current_tx__packet, sequence + 1);
      }
      EXPECT_EQ(b.stats.tx_packets, 4U);
    }
  }
}

TEST(Transmitter, SweepMovesOnAcrossOctets) {
  bench b("-e2 10.0.0.255 10.0.1.1");
  for (const char* host : {"10.0.0.255", "10.0.0.255", "10.0.1.0", "10.0.1.0", "10.0.1.1", "10.0.1.1", "10.0.1.2"}) {
    EXPECT_EQ(sent(&b), "");
    EXPECT_EQ(world.sent.back().address, inet_addr(host));
    EXPECT_EQ(b.slot(b.run.current_tx__packet - 1).destination, inet_addr(host));
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

TEST(Transmitter, TracerouteRaisesTheTtlTo127) {
  bench b("-t");
  b.run.data_socket = socket(AF_INET, SOCK_DGRAM, 0);
  for (const std::uint32_t sequence : {0U, 1U, 125U, 126U, 127U, 0xFFFFFFFEU}) {
    b.run.current_tx__packet = sequence;
    EXPECT_EQ(sent(&b), "");
    int ttl = 0;
    socklen_t length = sizeof ttl;
    getsockopt(b.run.data_socket, IPPROTO_IP, IP_TTL, &ttl, &length);
    EXPECT_EQ(ttl, std::min(sequence, 126U) + 1);
  }
  close(std::exchange(b.run.data_socket, -1));
  EXPECT_EQ(sent(&b), "[err] ERROR: Could not set TTL for outbound request. Permissions?\n");
  b.settings.udp = 1;  // the TTL of other carriers stays
  EXPECT_EQ(sent(&b), "");
}

TEST(Transmitter, RefusedDatagramsCountFailedConnectionsDoNot) {
  bench b("-u -D");
  b.run.transmit_length = 1472;
  world.now += 1500000;
  world.send_result = -1;
  const std::string debug = "1.500000: Tx one, process_id = 00011170, *current_tx__packet = ";
  EXPECT_EQ(sent(&b), debug + "0, batch = 0\nErr- could not send 1472 bytes, sent -1 bytes\n");
  world.send_result = 1471;
  EXPECT_EQ(sent(&b), debug + "1, batch = 0\nErr- could not send 1472 bytes, sent 1471 bytes\n");
  b.settings.tcp = std::exchange(b.settings.udp, b.settings.debug = 0);
  b.connect(SOCK_STREAM);
  EXPECT_EQ(sent(&b), "");
  EXPECT_EQ(b.read_from_code(), message(1, 70000, 0, 2, 1472));
  shutdown(b.peer, SHUT_RDWR);
  EXPECT_EQ(sent(&b, -1), "Err- could not send 1472 bytes. Sent 0 bytes\n");
  EXPECT_EQ(numbers(b.stats.tx_packets, b.run.current_tx__packet, b.slot(3).outstanding), (list{3, 3, 1}));
}
