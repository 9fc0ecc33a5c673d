// IPv4 addresses as text.
#pragma once

#include <cstdint>

// Dotted decimal text of an address in network byte order, in the next of 50 process-wide buffers. A text stays valid
// through the next 49 calls, so one message can show up to 50 addresses.
const char* address_text(std::uint32_t address);
