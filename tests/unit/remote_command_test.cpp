#include "wire/remote_command.h"

#include "support/expect.h"

// Where the words of the body are.
constexpr std::size_t window = 0, total = 4, count = 8, delay = 16, timeout = 20, start = 24, end = 28, length = 32;
constexpr std::size_t ignore = 44, debug = 52, unidirectional = 56, partner = 72, remote = 76, udp = 80, tcp = 84;
constexpr std::size_t ports = 88, command = 96, period = 108, tos = 112, duration = 128;
constexpr std::uint32_t all = 0xFFFFFFFF;

using words = std::vector<std::pair<std::size_t, std::uint32_t>>;
static const std::uint32_t source = inet_addr("10.0.0.7");

// Zeros, the ports of a commander and these words, in network byte order or as they lie in memory.
static byte_vector body_of(const words& values, bool in_memory = false) {
  byte_vector body = patched(byte_vector(144), ports, be16(8004) + be16(8003));
  for (const auto& [offset, value] : values) body = patched(body, offset, in_memory ? raw(value) : be32(value));
  return body;
}

static byte_vector read_by(const std::string& monitor, const byte_vector& bytes) {
  const workbench own(monitor);
  command_body body;
  std::memcpy(&body, bytes.data(), sizeof body);
  test_settings taken = {};
  read_remote_command(&body, source, &own.settings, &taken);
  return raw(taken);
}

TEST(RemoteCommand, BytesOfCommandersBothWays) {
  const std::pair<std::string, words> commanders[] = {
      {"-c -E65536 -d2000 -T7000 -q255 -v -b -A9 -s",
       {{total, 65536}, {count, 65536}, {delay, 2000}, {timeout, 9000}, {udp, 1}, {period, 2000}, {tos, 255}}},
      {"-c -p -E7 -l1500 -d4294967295 -S60 -U -t -m -Q",
       {{total, 7}, {count, 7}, {delay, all}, {timeout, all}, {length, 1500}, {tcp, 1}, {period, all}}}};
  for (auto [arguments, expected] : commanders) {
    expected.insert(expected.end(), {{window, 1}, {ignore, 1}, {unidirectional, 1}, {remote, 1}});
    workbench commander(arguments);
    command_body body = {};
    build_remote_command(&commander.settings, &body);
    EXPECT_EQ(raw(body), body_of(expected)) << arguments;
    // What a commander can send runs as sent.
    EXPECT_EQ(read_by(commander.settings.tcp != 0 ? "-p" : "-u", raw(body)),
              patched(body_of(expected, true), start, raw(source) + raw(source)));
  }
}

TEST(RemoteCommand, WhatNoCommanderSendsIsBounded) {
  const std::tuple<std::size_t, std::uint32_t, std::uint32_t> cases[] = {
      {count, 65536, 65536},  {count, 65537, 65536},  {count, all, 65536}, {count, 0, 0},
      {delay, 0, 1},          {delay, all, all},      {ignore, 0, 1},      {ignore, all, 1},
      {unidirectional, 0, 1}, {unidirectional, 7, 1}, {partner, all, 0},   {remote, 0, 1},
      {remote, 9, 1},         {command, all, 0},      {duration, all, 0},  {debug, all, 1},
      {start, all, source},   {end, all, source},     {udp, 0, 1},         {tcp, 1, 0}};
  for (const auto& [word, sent, taken] : cases) {  // carrier and debugging are the monitor's own
    const byte_vector read = read_by("-u -D", body_of({{udp, 1}, {word, sent}}));
    EXPECT_EQ(byte_vector(read.data() + word, read.data() + word + 4), raw(taken)) << word << ", " << sent;
  }
}
