#include "app/host_address.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "base/live_output.h"

// inet_addr takes short forms such as 127.1 as well; what it refuses may still be a name.
bool resolve_host(const char* text, std::uint32_t* address) {
  const in_addr_t dotted = inet_addr(text);
  if (dotted != INADDR_NONE) {
    *address = dotted;
    return true;
  }
  flush_output();  // a name server may take its time
  const hostent* host = gethostbyname(text);
  if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) return false;
  std::memcpy(address, host->h_addr_list[0], sizeof *address);
  return true;
}
