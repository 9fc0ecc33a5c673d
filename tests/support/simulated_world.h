// The world around the code under test: a clock that moves only while the code waits, and a network that takes what is
// sent. The functions of the C library that tell the time, wait or send a datagram are replaced in every test program.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <utility>
#include <vector>

struct simulated_world {
  std::int64_t now = 1700000000000000;  // usec since the epoch
  std::int64_t set_by = 0;              // usec by which the date was set: it shows this much more
  int readings = 0;                     // of the clock so far
  std::int64_t overshoot = 0;           // usec by which every wait ends late
  // What happens while the code waits, by time. Descriptors are real: an event sends to the code by writing to them.
  std::multimap<std::int64_t, std::function<void()>> events;
  bool interrupted = false;  // a signal has come: the wait under way fails with EINTR
  std::function<void()> on_yield;
  int sent = 0;                                                   // datagrams so far
  int send_calls = 0;                                             // that took them
  std::function<void(const std::vector<std::uint8_t>&)> on_send;  // of each datagram
  // The errno that the next datagram meets, or side by side several in one, 0 = none.
  std::function<int(bool side_by_side)> send_error;
  // The kernel's stamps of what was sent, by the date, that wait to be read: the datagram's number and usec since the
  // epoch.
  std::deque<std::pair<std::uint32_t, std::int64_t>> send_stamps;
  // That accept4 meets, the last one first, before it gives a copy of the listening socket for a connection.
  std::vector<int> accept_errors;

  void after(std::int64_t usec, std::function<void()> event) {
    events.emplace(now + usec, std::move(event));
  }
};

extern simulated_world world;
