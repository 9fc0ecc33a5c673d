#include "net/address_text.h"

#include "support/expect.h"

TEST(AddressText, FiftyTextsStayValidTogether) {
  for (int start = 0; start < 50; ++start) {  // wherever in the ring they begin
    std::vector<const char*> texts;
    for (std::uint32_t i = 0; i < 50; ++i) texts.push_back(address_text(htonl(0x0A00FF00U + i)));
    for (std::uint32_t i = 0; i < 50; ++i) EXPECT_EQ(texts[i], "10.0.255." + std::to_string(i));
    EXPECT_STREQ(address_text(0xFFFFFFFF), "255.255.255.255");
  }
}
