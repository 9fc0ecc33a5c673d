#include "support/expect.h"
#include "wire/checksum.h"
#include "wire/icmp_echo.h"
#include "wire/messages.h"
#include "wire/packet_sizes.h"

TEST(Checksum, AgreesWithTheByteWiseSumAtEveryLengthAndAlignment) {
  for (std::size_t length = 0; length <= 65535; length += length < 70 ? 1 : 65465) {
    for (const unsigned step : {0U, 37U, 255U}) {  // zeros, a mixture, and all ones, where every addition carries
      byte_vector bytes(length);
      for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(step == 255 ? 255 : i * step);
      for (std::size_t offset = 0; offset < 8; ++offset) {
        const byte_vector shifted = byte_vector(offset) + bytes;  // ends where the message ends
        EXPECT_EQ(raw(internet_checksum(shifted.data() + offset, length)), be16(plain_checksum(bytes)))
            << length << " bytes at " << offset << ", step " << step;
      }
    }
  }
}

TEST(IcmpDatagram, IsTakenApartAtEveryLengthAndHeaderLength) {
  const byte_vector whole = datagram(icmp_message(0, 1, 2, byte_vector(60)), "192.168.1.5");
  for (std::size_t words = 0; words < 16; ++words) {
    for (std::size_t length = 1; length <= whole.size(); ++length) {
      const byte_vector bytes = patched(prefix(whole, length), 0, {static_cast<std::uint8_t>(0x40 | words)});
      icmp_datagram parts = {.source = 1, .icmp = {}};
      const bool fits = locate_icmp(bytes, &parts);
      EXPECT_EQ(fits, words >= 5 && length >= words * 4 + 8) << words << " words, " << length << " bytes";
      EXPECT_EQ(parts.source, fits ? inet_addr("192.168.1.5") : 1);
      EXPECT_EQ(byte_vector(parts.icmp.begin(), parts.icmp.end()),
                fits ? byte_vector(bytes.begin() + words * 4, bytes.end()) : byte_vector());
    }
  }
}

TEST(Wire, HeadersAndSizes) {
  const byte_vector wire = message(3, 0x01020304, 0x80000001, 0xFFFFFFFE, 1472);
  test_header header = {.type = 7, .process_id = 7, .batch = 7, .sequence = 7, .length = 7};
  for (std::size_t length = 0; length < 20; ++length) EXPECT_FALSE(read_test_header(prefix(wire, length), &header));
  EXPECT_EQ(numbers(header.type, header.process_id, header.batch, header.sequence, header.length), list(5, 7));
  EXPECT_TRUE(read_test_header(prefix(wire, 20), &header));
  EXPECT_EQ(numbers(header.type, header.process_id, header.batch, header.sequence, header.length),
            (list{3, 0x01020304, 0x80000001, 0xFFFFFFFE, 1472}));

  // UDP, TCP, the length asked for; the length of the datagram, what is sent, the payload.
  const list cases[] = {{0, 0, 29, 29, 9, 1},   {0, 0, 65536, 65535, 65515, 65507},
                        {1, 0, 0, 48, 20, 20},  {1, 0, 65536, 65535, 65507, 65507},
                        {0, 1, 10, 60, 20, 20}, {0, 1, 65535, 65535, 65495, 65495}};
  for (const list& each : cases) {
    const packet_sizes sizes = sizes_for_carrier(each[0] != 0, each[1] != 0, static_cast<std::uint32_t>(each[2]));
    EXPECT_EQ(numbers(each[0], each[1], each[2], sizes.ip_length, sizes.transmit_length, sizes.payload_length), each);
  }
}
