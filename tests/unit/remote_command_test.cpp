#include "wire/remote_command.h"

#include "support/expect.h"

using words = std::vector<std::pair<std::size_t, std::uint32_t>>;  // by offset in the body
static const std::uint32_t source = inet_addr("10.0.0.7");

// Zeros, the ports of a commander and these words, in network byte order or as they lie in memory.
static byte_vector body_of(const words& values, bool in_memory = false) {
  byte_vector body = patched(byte_vector(144), 88, be16(8004) + be16(8003));
  for (const auto& [offset, value] : values) body = patched(body, offset, in_memory ? raw(value) : be32(value));
  return body;
}

static byte_vector read_by(const std::string& monitor, const byte_vector& bytes) {
  const workbench own(monitor);
  command_body body;
  std::memcpy(&body, bytes.data(), sizeof body);
  test_settings command = {};
  read_remote_command(&body, source, &own.settings, &command);
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
    workbench commander(arguments);
    command_body body = {};
    build_remote_command(&commander.settings, &body);
    EXPECT_EQ(raw(body), body_of(expected)) << arguments;
    // What a commander can send runs as sent.
    EXPECT_EQ(read_by(commander.settings.tcp != 0 ? "-p" : "-u", raw(body)),
              patched(body_of(expected, true), 24, raw(source) + raw(source)));
  }
}

TEST(RemoteCommand, WhatNoCommanderSendsIsBounded) {
  constexpr std::uint32_t all = 0xFFFFFFFF;
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
}
