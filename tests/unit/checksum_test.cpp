#include "wire/checksum.h"

#include "support/expect.h"

TEST(Checksum, AgreesWithTheByteWiseSumAtEveryLengthAndAlignment) {
  EXPECT_EQ(internet_checksum(nullptr, 0), 0);
  for (std::size_t length = 0; length <= 65535; length += length < 70 ? 1 : 65465) {
    for (const unsigned step : {0U, 37U, 255U}) {  // zeros, a mixture, and all ones, where every addition carries
      byte_vector bytes(length);
      for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(step == 255 ? 255 : i * step);
      for (std::size_t offset = 0; offset < 8; ++offset) {
        const byte_vector shifted = zeros(offset) + bytes;  // ends where the message ends
        EXPECT_EQ(raw(internet_checksum(shifted.data() + offset, length)), be16(plain_checksum(bytes)))
            << length << " bytes at " << offset << ", step " << step;
      }
    }
  }
}
