// IPv4 addresses as text, and texts as addresses.
#pragma once

#include <cstdint>

// Dotted decimal text of an address in network byte order, in the next of 50 process-wide buffers. A text stays valid
// through the next 49 calls, so one message can show up to 50 addresses.
const char* address_text(std::uint32_t address);

// The IPv4 address, in network byte order, of a dotted address or of a name (inet_addr(3), else the first address of
// gethostbyname(3)). False, with *address untouched, when the text is neither.
[[nodiscard]] bool resolve_host(const char* text, std::uint32_t* address);
