// The world around the code under test: a clock that moves only while the code waits, and a network that keeps what is
// sent. The functions of the C library that tell the time, wait or send a datagram are replaced in every test program.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

struct sent_datagram {
  std::vector<std::uint8_t> bytes;
  std::uint32_t address;  // network byte order
  std::uint16_t port;     // network byte order
};

struct simulated_world {
  std::int64_t now = 1700000000000000;  // usec since the epoch
  int readings = 0;                     // of the clock so far
  // What happens while the code waits, by time. Descriptors are real: an event sends to the code by writing to them.
  std::multimap<std::int64_t, std::function<void()>> events;
  std::vector<sent_datagram> sent;
  std::function<void(const sent_datagram&)> on_send;
  bool keeps_nothing = false;  // a sink: whatever is sent is gone

  void after(std::int64_t usec, std::function<void()> event) {
    events.emplace(now + usec, std::move(event));
  }
};

extern simulated_world world;
