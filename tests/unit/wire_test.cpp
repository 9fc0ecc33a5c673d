#include "support/expect.h"
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

  const struct {
    bool udp = false, tcp = false;
    std::uint32_t asked = 0;
    std::int64_t ip, sent, payload;
  } cases[] = {{.asked = 29, .ip = 29, .sent = 9, .payload = 1},
               {.asked = 65536, .ip = 65535, .sent = 65515, .payload = 65507},
               {.udp = true, .ip = 48, .sent = 20, .payload = 20},
               {.udp = true, .asked = 65536, .ip = 65535, .sent = 65507, .payload = 65507},
               {.tcp = true, .asked = 10, .ip = 60, .sent = 20, .payload = 20},
               {.tcp = true, .asked = 65535, .ip = 65535, .sent = 65495, .payload = 65495}};
  for (const auto& [udp, tcp, asked, ip, sent, payload] : cases) {
    const packet_sizes sizes = sizes_for_carrier(udp, tcp, asked);
    EXPECT_EQ(numbers(sizes.ip_length, sizes.transmit_length, sizes.payload_length), (list{ip, sent, payload}));
  }
}
