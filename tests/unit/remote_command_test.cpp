#include "wire/remote_command.h"

#include "support/expect.h"

using words = std::vector<std::pair<std::size_t, std::uint32_t>>;  // by offset in the body
static const byte_vector source = raw(inet_addr("10.0.0.7"));

// Zeros, the ports of a commander and these words, each as `bytes_of` lays it.
static byte_vector body_of(const words& values, byte_vector (*bytes_of)(std::int64_t) = be32) {
  byte_vector body = patched(byte_vector(144), 88, be16(8004) + be16(8003));
  for (const auto& [offset, value] : values) body = patched(body, offset, bytes_of(value));
  return body;
}

static byte_vector in_memory(std::int64_t value) {
  return raw(static_cast<std::uint32_t>(value));
}

static byte_vector read_by(const std::string& monitor, const byte_vector& bytes) {
  const bench own(monitor);
  command_body body;
  std::memcpy(&body, bytes.data(), sizeof body);
  test_settings command = {};
  read_remote_command(&body, inet_addr("10.0.0.7"), &own.settings, &command);
  return raw(command);
}

TEST(RemoteCommand, BytesOfCommandersBothWays) {
  const std::pair<std::string, words> commanders[] = {
      {"-c -E65536 -l1500 -d2000 -T7000 -q255 -v -b -A9 -s",
       {{4, 65536}, {8, 65536}, {16, 2000}, {20, 9000}, {32, 1500}, {80, 1}, {108, 2000}, {112, 255}}},
      {"-c -p -E7 -d4294967295 -S60 -U -t -m -Q",
       {{4, 7}, {8, 7}, {16, 0xFFFFFFFF}, {20, 0xFFFFFFFF}, {84, 1}, {108, 0xFFFFFFFF}}}};
  for (auto [arguments, expected] : commanders) {
    expected.insert(expected.end(), {{0, 1}, {44, 1}, {56, 1}, {76, 1}});
    bench commander(arguments);
    command_body body = {};
    build_remote_command(&commander.settings, &body);
    EXPECT_EQ(raw(body), body_of(expected)) << arguments;
    // What a commander can send runs as sent.
    EXPECT_EQ(read_by(commander.settings.tcp != 0 ? "-p" : "-u", raw(body)),
              patched(body_of(expected, in_memory), 24, source + source));

    commander.settings.udp = std::exchange(commander.settings.tcp, 0) | commander.settings.udp;
    commander.run.transmit_length = 1472;  // of no account: the message has 164 bytes
    EXPECT_EQ(send_test_packet(&commander.settings, &commander.run, &commander.stats, &body), 0);
    EXPECT_EQ(world.sent.at(0).bytes, prefix(message(4, 70000, 0, 0, 164), 20) + raw(body));
  }
}

TEST(RemoteCommand, WhatNoCommanderSendsIsBounded) {
  constexpr std::uint32_t all = 0xFFFFFFFF;
  const std::uint32_t sender = inet_addr("10.0.0.7");
  // Offset, what is sent, what is taken.
  const std::uint32_t cases[][3] = {{8, 65536, 65536}, {8, 65537, 65536}, {8, all, 65536}, {8, 0, 0},
                                    {16, 0, 1},        {16, all, all},    {44, 0, 1},      {44, all, 1},
                                    {56, 0, 1},        {56, 7, 1},        {72, all, 0},    {76, 0, 1},
                                    {76, 9, 1},        {96, all, 0},      {128, all, 0},   {52, all, 1},
                                    {24, all, sender}, {28, all, sender}, {80, 0, 1},      {84, 1, 0}};
  for (const auto& [offset, sent, taken] : cases) {  // carrier and debugging are the monitor's own
    const byte_vector read = read_by("-u -D", body_of({{80, 1}, {offset, sent}}));
    EXPECT_EQ(byte_vector(read.data() + offset, read.data() + offset + 4), raw(taken)) << offset << ", " << sent;
  }
}
