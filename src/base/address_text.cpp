#include "base/address_text.h"

#include <arpa/inet.h>

#include <array>

namespace {

using text_buffer = std::array<char, 50>;

std::array<text_buffer, 50> texts;
std::size_t next_text = 0;

}  // namespace

const char* address_text(std::uint32_t address) {
  char* text = texts[next_text].data();
  next_text = (next_text + 1) % texts.size();
  const in_addr value = {.s_addr = address};
  inet_ntop(AF_INET, &value, text, static_cast<socklen_t>(text_buffer().size()));
  return text;
}
