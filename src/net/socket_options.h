// What sockets of every carrier have in common: taking a descriptor, its buffers, its address.
#pragma once

#include <netinet/in.h>

#include <cstdint>

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
