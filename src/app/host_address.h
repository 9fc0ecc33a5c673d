// Host arguments to addresses.
#pragma once

#include <cstdint>

// The IPv4 address, in network byte order, of a dotted address or of a name (inet_addr(3), else the first address of
// gethostbyname(3)). False, with *address untouched, when the text is neither.
[[nodiscard]] bool resolve_host(const char* text, std::uint32_t* address);
