#include "wire/icmp_echo.h"

#include "support/expect.h"

TEST(IcmpDatagram, IsTakenApartAtEveryLengthAndHeaderLength) {
  const byte_vector whole = datagram(icmp_message(0, 1, 2, zeros(60)), "192.168.1.5");
  for (std::size_t words = 0; words < 16; ++words) {
    for (std::size_t length = 1; length <= whole.size(); ++length) {
      const byte_vector bytes = patched(prefix(whole, length), 0, {static_cast<std::uint8_t>(0x40 | words)});
      const bool fits = words >= 5 && length >= words * 4 + 8;
      icmp_datagram parts = {.source = 1, .icmp = {}};
      EXPECT_EQ(locate_icmp(bytes, &parts), fits) << words << " words, " << length << " bytes";
      EXPECT_EQ(parts.source, fits ? inet_addr("192.168.1.5") : 1);
      EXPECT_EQ(parts.icmp.data(), fits ? bytes.data() + words * 4 : nullptr);
      EXPECT_EQ(parts.icmp.size(), fits ? length - words * 4 : 0);
    }
  }
}

TEST(IcmpError, QuoteIsReadWholeOrNotAtAll) {  // routers may quote as little as RFC 792 asks for
  const byte_vector error = icmp_error(11, 0xBEEF, 0xFFFE);
  icmp_echo echo = {.type = 99, .identifier = 1, .sequence = 2};
  for (std::size_t length = 0; length < error.size(); ++length) {
    EXPECT_FALSE(read_quoted_echo(prefix(error, length), &echo)) << length << " bytes";
  }
  for (const std::size_t at : {8U, 17U}) {  // version and header length, then the protocol
    for (int bit = 0; bit < 8; ++bit) {
      EXPECT_FALSE(read_quoted_echo(patched(error, at, {static_cast<std::uint8_t>(error[at] ^ 1 << bit)}), &echo));
    }
  }
  EXPECT_EQ(numbers(echo.type, echo.identifier, echo.sequence), (list{99, 1, 2}));  // untouched
  EXPECT_TRUE(read_quoted_echo(error, &echo));
  EXPECT_EQ(numbers(echo.type, echo.identifier, echo.sequence), (list{8, 0xBEEF, 0xFFFE}));
}
