#include "base/address_text.h"

#include <arpa/inet.h>

#include <array>

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
