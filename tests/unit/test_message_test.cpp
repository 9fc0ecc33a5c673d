#include "wire/test_message.h"

#include "support/expect.h"

TEST(TestMessage, HeaderBytesBothWays) {
  const byte_vector wire = message(3, 0x01020304, 0x80000001, 0xFFFFFFFE, 1472);
  test_header header = {.type = 7, .process_id = 7, .batch = 7, .sequence = 7, .length = 7};
  for (std::size_t length = 0; length < 20; ++length) EXPECT_FALSE(read_test_header(prefix(wire, length), &header));
  for (const list& expected : {list{7, 7, 7, 7, 7}, {3, 0x01020304, 0x80000001, 0xFFFFFFFE, 1472}}) {
    EXPECT_EQ(numbers(header.type, header.process_id, header.batch, header.sequence, header.length), expected);
    EXPECT_TRUE(read_test_header(prefix(wire, 20), &header));
  }
  byte_vector written(20, 0xFF);
  write_test_header(&header, written.data());
  EXPECT_EQ(written, prefix(wire, 20));
}
