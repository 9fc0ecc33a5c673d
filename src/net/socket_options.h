// What sockets of every carrier have in common: taking a descriptor, its buffers, its address, its filters.
#pragma once

#include <netinet/in.h>

#include <cstdint>

struct run_state;
struct test_settings;

// setsockopt(2) with an int; its result.
int set_socket_option(int socket, int level, int option, int value);

// A new IPv4 socket that select can watch; -1 when there is none, and for one that it could not.
[[nodiscard]] int open_socket(int type, int protocol);

// IPv4 address and port as the socket calls take them, both in network byte order.
[[nodiscard]] sockaddr_in socket_address(std::uint32_t address, std::uint16_t port);

// Binds to an address and a port in network byte order. False when that is refused.
[[nodiscard]] bool bind_socket(int socket, std::uint32_t address, std::uint16_t port);

// Asks for send and receive buffers of 1 MiB; what is refused is a warning on standard output.
void set_buffer_sizes(int socket);

// Sets on run->data_socket what the kernel need not hand to the run: filters by ICMP type (ICMP_FILTER, raw(7)) or for
// everything (SO_ATTACH_FILTER, socket(7)). A datagram run that never reads takes nothing, so that nothing is queued,
// and counted as lost, for want of a reader. An echo test over ICMP leaves out echo requests, its own that pass this
// host among them: none is an answer. All else comes through, broken frames too. A monitor that reads and a command
// run, whose socket is the monitor's, are left alone. A kernel that refuses costs speed, not truth.
void leave_out_own_traffic(const test_settings* settings, const run_state* run);
