#include "wire/remote_command.h"

#include "support/expect.h"

using words = std::vector<std::pair<std::size_t, std::uint32_t>>;  // by offset in the body

// These words in network byte order, the ports of a commander, and zeros.
static byte_vector body_of(const words& values) {
  byte_vector body = patched(zeros(144), 88, be16(8004) + be16(8003));
  for (const auto& [offset, value] : values) body = patched(body, offset, be32(value));
  return body;
}

static byte_vector read_by(const std::string& monitor, const byte_vector& bytes) {
  const bench own(monitor);
  command_body body;
  std::memcpy(&body, bytes.data(), sizeof body);
  test_settings command = {};
  read_remote_command(&body, inet_addr("10.0.0.7"), &own.settings, &command);
  return raw(command);
}

TEST(RemoteCommand, BytesOfThreeCommandersBothWays) {
  const std::pair<std::string, words> commanders[] = {
      {"-c -E50 -l1500 -d0", {{4, 50}, {8, 50}, {16, 1}, {20, 100001}, {32, 1500}, {80, 1}, {108, 1}}},
      {"-c -E65536 -d2000 -T7000 -q255 -v -b -A9 -s",
       {{4, 65536}, {8, 65536}, {16, 2000}, {20, 9000}, {80, 1}, {108, 2000}, {112, 255}}},
      {"-c -p -E7 -d4294967295 -S60 -U -t -m -Q",
       {{4, 7}, {8, 7}, {16, 0xFFFFFFFF}, {20, 0xFFFFFFFF}, {84, 1}, {108, 0xFFFFFFFF}}}};
  for (auto [arguments, expected] : commanders) {
    expected.insert(expected.end(), {{0, 1}, {44, 1}, {56, 1}, {76, 1}});
    bench commander(arguments);
    command_body body = {};
    build_remote_command(&commander.settings, &body);
    EXPECT_EQ(raw(body), body_of(expected)) << arguments;

    const bool tcp = std::exchange(commander.settings.tcp, 0) != 0;
    commander.settings.udp = 1;
    commander.run.transmit_length = 1472;  // of no account: the message has 164 bytes
    commander.run.batch = 9;
    EXPECT_EQ(send_test_packet(&commander.settings, &commander.run, &commander.stats, &body), 0);
    EXPECT_EQ(world.sent.at(0).bytes, prefix(message(4, 70000, 9, 0, 164), 20) + raw(body));

    byte_vector back = patched(zeros(144), 88, be16(8004) + be16(8003));  // what a commander can send runs as sent
    for (const auto& [offset, value] : expected) back = patched(back, offset, raw(value));
    const byte_vector source = raw(inet_addr("10.0.0.7"));
    EXPECT_EQ(read_by(tcp ? "-p" : "-u", raw(body)), patched(back, 24, source + source)) << arguments;
  }
}

TEST(RemoteCommand, WhatNoCommanderSendsIsBounded) {
  constexpr std::uint32_t all = 0xFFFFFFFF;
  const std::uint32_t source = inet_addr("10.0.0.7");
  // Offset, what is sent, what is taken.
  const std::uint32_t cases[][3] = {{8, 65536, 65536}, {8, 65537, 65536}, {8, all, 65536}, {8, 0, 0},
                                    {16, 0, 1},        {16, all, all},    {44, 0, 1},      {44, all, 1},
                                    {56, 0, 1},        {56, 7, 1},        {72, all, 0},    {76, 0, 1},
                                    {76, 9, 1},        {96, all, 0},      {128, all, 0},   {52, all, 1},
                                    {24, all, source}, {28, all, source}, {80, 0, 1},      {84, 1, 0}};
  for (const auto& [offset, sent, taken] : cases) {  // carrier and debugging are the monitor's own
    const byte_vector read = read_by("-u -D", body_of({{80, 1}, {offset, sent}}));
    EXPECT_EQ(byte_vector(read.data() + offset, read.data() + offset + 4), raw(taken)) << offset << ", " << sent;
  }
  EXPECT_EQ(prefix(read_by("-p", body_of({{80, 1}})), 88),
            patched(prefix(read_by("-u", body_of({{84, 1}})), 88), 80, raw(0U) + raw(1U)));
}
