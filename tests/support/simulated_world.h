// The world around the code under test: a clock that moves only while the code waits, sockets whose other end is the
// test's, and a network that takes what is sent. The functions of the C library that tell the time, wait, or open, set
// up and use a socket are replaced in every test program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <utility>

#include "support/frames.h"

enum class call { socket, setsockopt, connect, bind, listen, accept4, send, sendto, sendmsg, sendmmsg, recvmmsg };

struct simulated_world {
  std::int64_t now = 1700000000000000;  // usec since the epoch
  std::int64_t set_by = 0;              // usec by which the date was set: it shows this much more
  int readings = 0;                     // of the clock so far
  std::int64_t overshoot = 0;           // usec by which every wait ends late
  bool interrupted = false;             // a signal has come: the wait under way fails with EINTR
  std::function<void()> on_yield;
  void (*on_exit)() = nullptr;  // in place of the end of the process; does not return
  // What happens while the code waits, by time.
  std::multimap<std::int64_t, std::function<void()>> events;

  std::function<int(call)> meets;  // the errno that the next call meets, 0 = none; sendmmsg meets one for each datagram
  // The socket that was opened last: the code's end, the peer's, and the type that the code asked for.
  int own = -1;
  int peer = -1;
  int type = 0;
  int sent = 0;                                     // datagrams and pieces of a stream so far
  int send_calls = 0;                               // that took them
  std::function<void(const byte_vector&)> on_send;  // of each, which goes no further; unset, pieces go to the peer
  bool sends_half = false;                          // of each piece
  std::int64_t arrival_age = 0;                     // usec since the kernel stamped what is read; 0 = it did not
  // The kernel's stamps of what was sent that wait to be read: the datagram's number and usec since the epoch.
  std::deque<std::pair<std::uint32_t, std::int64_t>> send_stamps;

  void after(std::int64_t usec, std::function<void()> event) {
    events.emplace(now + usec, std::move(event));
  }
  // A socket of this type for the code, joined to `peer`. -1 where there is none to be had.
  int open(int socket_type);
  // Has the peer send these bytes `usec` from now. Those that the code's socket has no room for are lost.
  void deliver(std::int64_t usec, const byte_vector& bytes);
  // Lets the code send nothing more until the peer reads.
  void fill() const;
  // Reads what the code has sent to the peer, to append it to *bytes or to forget it. Returns how many bytes.
  std::size_t drain(byte_vector* bytes = nullptr) const;
};

extern simulated_world world;

inline timespec as_timespec(std::int64_t usec) {
  return {.tv_sec = static_cast<time_t>(usec / 1000000), .tv_nsec = static_cast<long>(usec % 1000000 * 1000)};
}
