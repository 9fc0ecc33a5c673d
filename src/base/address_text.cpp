#include "base/address_text.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <array>
#include <cstring>

#include "base/live_output.h"

namespace {

// One message may show several addresses, so a text must outlive the calls behind it.
constexpr std::size_t texts_at_once = 50;
using text_buffer = std::array<char, 50>;

std::array<text_buffer, texts_at_once> texts;
std::size_t next_text = 0;

}  // namespace

const char* address_text(std::uint32_t address) {
  char* text = texts[next_text].data();
  next_text = (next_text + 1) % texts.size();
  const in_addr value = {.s_addr = address};
  inet_ntop(AF_INET, &value, text, static_cast<socklen_t>(text_buffer().size()));
  return text;
}

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
