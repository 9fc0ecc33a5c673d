#include "app/options.h"

#include "app/option_table.h"
#include "app/usage.h"
#include "support/expect.h"

// The words of the record: their names here, and the defaults of a run to 10.0.0.1.
static const char* const names[36] = {
    "window",   "total",     "count",     "trace",  "delay",   "timeout", "start",          "end",
    "length",   "silent",    "hush",      "ignore", "average", "debug",   "unidirectional", "reserved",
    "report",   "reporting", "partner",   "remote", "udp",     "tcp",     "ports",          "id",
    "command",  "echoes",    "i",         "period", "tos",     "payload", "interface",      "verbose",
    "duration", "quiet",     "bandwidth", "buffers"};
static const std::uint32_t defaults[36] = {
    1, 0, 3, 0, 100000,     200000, 0x0A000001, 0x0A000001, 0, 0,      0, 0, 0, 0, 0, 36, 0, 0,
    0, 0, 0, 0, 0x1F431F44, 0,      0,          0,          0, 100000, 0, 0, 0, 0, 0, 0,  1, 0};

// The words that differ from the defaults; addresses and ports in hexadecimal.
static std::string parsed(const std::string& arguments) {
  std::uint32_t words[36];
  std::memset(words, 0xEE, sizeof words);
  int result = -1;
  said([&] { result = parse(arguments + " 10.0.0.1", reinterpret_cast<test_settings*>(words)); });
  if (result != 0) return "rejected";
  std::ostringstream text;
  for (std::size_t i = 0; i < 36; ++i) {
    const bool network_order = i == 6 || i == 7 || i == 16 || i == 22 || i == 30;
    const std::uint32_t value = network_order ? ntohl(words[i]) : words[i];
    if (value != defaults[i]) text << names[i] << '=' << (network_order ? std::hex : std::dec) << value << ' ';
  }
  return text.str();
}

TEST(Options, LettersNumbersAndPresets) {
  const std::string client = "count=1000 delay=1 timeout=100001 length=1500 silent=1 ";
  const std::string endless = "count=2147483647 delay=1 timeout=";
  const std::pair<const char*, std::string> cases[] = {
      {"-a65535 -l65536", "window=65534 length=65535 "},
      {"-A4294967295 -I99999999999999999999999", "average=4294967295 i=4294967295 "},
      {"-b -B -E65536 -q255 -t", "trace=1 echoes=65536 tos=255 bandwidth=0 buffers=1 "},
      {"-mtext -s -v -Q -i -U -D", "silent=1 hush=1 ignore=1 debug=1 unidirectional=1 verbose=1 quiet=1 "},
      {"-d0x10 -T010", "delay=16 timeout=24 period=16 "},
      {"-d2 -T0b11", "delay=2 timeout=2 period=2 "},
      {"-d0 -T7 -e0", endless + "8 period=1 "},
      {"-d4294967296 -ex", "count=2147483647 delay=4294967295 timeout=4294967295 period=4294967295 "},
      {"-n192.168.1.2 -u", "udp=1 interface=c0a80102 "},
      {"-nobody -u", "udp=1 "},
      {"-r3 -S5", "count=2147483647 delay=333333 timeout=433333 period=333333 duration=5 "},
      {"-r2000000 -S5 -e4", "count=4 delay=1 timeout=100001 period=1 duration=5 "},
      {"-c -E10 -d2000", "delay=2000 timeout=102000 partner=1 udp=1 command=1 echoes=10 period=22000 "},
      {"--c", client + "partner=1 udp=1 command=1 echoes=50 period=51 "},
      {"-p --se", "silent=1 partner=1 tcp=1 ports=1f441f43 "},
      {"--blast", endless + "100001 length=1500 ignore=1 unidirectional=1 period=1 "},
      {"--d", "window=500 count=1 delay=1 timeout=1000001 hush=1 period=1 "},
      {"--trac", "count=20 trace=1 delay=1 timeout=100001 period=1 "},
      {"--l -a3", "window=3 " + endless + "200001 length=1500 silent=1 average=50 period=1 "},
      {"--voice", "count=3000 delay=20000 timeout=40000 length=250 silent=1 hush=1 average=50 period=20000 "}};
  for (const auto& [arguments, expected] : cases) EXPECT_EQ(parsed(arguments), expected) << arguments;
  for (const char* bad : {"-E65537", "-E4294967297", "-q256", "-r0", "-d-x"}) EXPECT_EQ(parsed(bad), "rejected") << bad;
}

TEST(Options, UsageKnowsEveryLetter) {  // but for -I, which does nothing
  const std::string text = said([] { print_usage("vorn"); });
  for (char letter = '!'; letter <= '~'; ++letter) {
    const std::string option = std::string(" -") + letter;  // also those that stand below -c
    const bool told =
        text.find("\n" + option) != std::string::npos || text.find("\n         " + option) != std::string::npos;
    EXPECT_EQ(told, find_option(letter) != nullptr && letter != 'I') << letter;
  }
}
