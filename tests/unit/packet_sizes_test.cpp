#include "wire/packet_sizes.h"

#include "support/expect.h"

TEST(PacketSizes, OfEveryCarrierFromTheSmallestToTheLargest) {
  // UDP, TCP, the length asked for; the length of the datagram, what is sent, the payload.
  const list cases[] = {{0, 0, 0, 28, 8, 0},
                        {0, 0, 29, 29, 9, 1},
                        {0, 0, 1500, 1500, 1480, 1472},
                        {0, 0, 0xFFFFFFFF, 65535, 65515, 65507},
                        {1, 0, 0, 48, 20, 20},
                        {1, 0, 49, 49, 21, 21},
                        {1, 0, 1500, 1500, 1472, 1472},
                        {1, 0, 65536, 65535, 65507, 65507},
                        {0, 1, 10, 60, 20, 20},
                        {0, 1, 1500, 1500, 1460, 1460},
                        {0, 1, 65535, 65535, 65495, 65495}};
  for (const list& each : cases) {
    const packet_sizes sizes = sizes_for_carrier(each[0] != 0, each[1] != 0, static_cast<std::uint32_t>(each[2]));
    EXPECT_EQ(numbers(each[0], each[1], each[2], sizes.ip_length, sizes.transmit_length, sizes.payload_length), each);
  }
}
