#include "app/options.h"

#include <fstream>

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

// What was printed, then the words that differ from the defaults; addresses and ports in hexadecimal.
static std::string parsed(const std::string& arguments, const std::string& host = " 10.0.0.1") {
  std::uint32_t words[36];
  std::memset(words, 0xEE, sizeof words);
  int result = -1;
  std::ostringstream text;
  text << said([&] { result = parse(arguments + host, reinterpret_cast<test_settings*>(words)); });
  if (result != 0) return text.str() + (result == 1 ? "rejected" : "?");
  for (std::size_t i = 0; i < 36; ++i) {
    const bool network_order = i == 6 || i == 7 || i == 16 || i == 22 || i == 30;
    const std::uint32_t value = network_order ? ntohl(words[i]) : words[i];
    if (value != defaults[i]) text << names[i] << '=' << (network_order ? std::hex : std::dec) << value << ' ';
  }
  return text.str();
}

TEST(Options, EveryLetterAndEveryFormOfNumber) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"-a0", ""},
      {"-a65534 -l65535", "window=65534 length=65535 "},
      {"-a65535 -l65536", "[err] -a# capped at 65534\n-l# capped at 65535\nwindow=65534 length=65535 "},
      {"-A4294967295 -I99999999999999999999999", "average=4294967295 i=4294967295 "},
      {"-b -B -E65536 -q255 -t", "trace=1 echoes=65536 tos=255 bandwidth=0 buffers=1 "},
      {"-mtext -s -v -Q -i -U -D", "silent=1 hush=1 ignore=1 debug=1 unidirectional=1 verbose=1 quiet=1 "},
      {"-d0x10", "delay=16 timeout=100016 period=16 "},
      {"-d010", "delay=8 timeout=100008 period=8 "},
      {"-d100ms -e", "count=2147483647 delay=100 timeout=100100 period=100 "},
      {"-d0 -T7 -e0", "count=2147483647 delay=1 timeout=8 period=1 "},
      {"-d4294967296 -ex", "count=2147483647 delay=4294967295 timeout=4294967295 period=4294967295 "},
      {"-n192.168.1.2 -u", "udp=1 interface=c0a80102 "},
      {"-n192.168.1.2 -neth0 -u9999 -p9999", "tcp=1 "},  // no port changes
      {"-r3 -S5", "count=2147483647 delay=333333 timeout=433333 period=333333 duration=5 "},
      {"-r2000000 -S5 -e4", "count=4 delay=1 timeout=100001 period=1 duration=5 "},
      {"-R10.1.2.3", "Sending reporting to 10.1.2.3\nreport=a010203 reporting=1 "},
      {"-R", "Sending reporting to 127.0.0.1\nreport=7f000001 reporting=1 "},
      {"-c -E10 -d2000", "delay=2000 timeout=102000 partner=1 udp=1 command=1 echoes=10 period=22000 "},
      {"-c -p", "partner=1 tcp=1 command=1 "},
      {"10.0.0.0", "start=a000000 "},
  };
  for (const auto& [arguments, expected] : cases) EXPECT_EQ(parsed(arguments), expected) << arguments;
  EXPECT_EQ(parsed("-c", ""), "start=0 end=0 partner=1 udp=1 command=1 ");
}

TEST(Options, PresetsByAnyPrefixInTheOrderGiven) {
  const std::string engaging = "Engaging options: ";
  const std::string client = "silent=1 partner=1 udp=1 command=1 echoes=50 period=51 ";
  const std::string lots = " average=50 ";
  const std::pair<const char*, std::string> cases[] = {
      {"--client", "-c -u -s -d0 -l1500 -E50 -e1000\ncount=1000 delay=1 timeout=100001 length=1500 " + client},
      {"--c", "-c -u -s -d0 -l1500 -E50 -e1000\ncount=1000 delay=1 timeout=100001 length=1500 " + client},
      {"--server", "-M -u -s\nsilent=1 partner=1 udp=1 ports=1f441f43 "},
      {"-p --se", "-M -u -s\nsilent=1 partner=1 tcp=1 ports=1f441f43 "},
      {"--blast",
       "-U -i -e -l1500 -d0\ncount=2147483647 delay=1 timeout=100001 length=1500 ignore=1 unidirectional=1 period=1 "},
      {"--d", "-m -e1 -d0 -a500 -T1000000 -s\nwindow=500 count=1 delay=1 timeout=1000001 hush=1 period=1 "},
      {"--trac", "-e20 -t -d0\ncount=20 trace=1 delay=1 timeout=100001 period=1 "},
      {"-a3 --lots",
       "-e -a10 -l1500 -d0 -A50 -s -T200000\nwindow=10 count=2147483647 delay=1 timeout=200001 length=1500 silent=1 average=50 period=1 "},
      {"--l -a3",
       "-e -a10 -l1500 -d0 -A50 -s -T200000\nwindow=3 count=2147483647 delay=1 timeout=200001 length=1500 silent=1 average=50 period=1 "},
      {"--voice",
       "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m\ncount=3000 delay=20000 timeout=40000 length=250 silent=1 hush=1 average=50 period=20000 "},
  };
  for (const auto& [arguments, expected] : cases) EXPECT_EQ(parsed(arguments), engaging + expected) << arguments;
}

TEST(Options, RejectionsAndTheirOneMessage) {
  const std::pair<std::string, std::string> cases[] = {
      {"-u", "Error- Expecting a host to send traffic to\n"},
      {"--", "Error: Expecting more than just --\n"},
      {"--x", "Error: unexpected -- option received\n"},
      {"--clientx", "Error: unexpected -- option received\n"},
      {"-E65537", "ERROR: Max -E is 65536\n"},
      {"-E4294967297", "ERROR: Max -E is 65536\n"},  // 1 in 32 bits
      {"-q256", "ERROR: Max TOS is 255\n"},
      {"-r0", "ERROR: Min -r is 1\n"},
      {"-f", "Error: Expecting filename for -f\n"},
      {"-F", "Error: Expecting tag for -F\n"},
      {"-f/no/such/directory/file", "Error: Bad filename? Permissions?\n"},
      {"0.0.0.0", "Error- could not interpret <0.0.0.0>\n"},
      {"10.0.0.1 10.0.0.2 10.0.0.3", "Error- unexpected argument <10.0.0.3> \n"},
      {"-i -c 10.0.0.1", "-c and -i incompatible\n"},
      {"-p -c 10.0.0.1", "-u and -p incompatible\n"},
      {"-p -u 10.0.0.1", "-u and -p incompatible\n"},
  };
  for (const auto& [arguments, line] : cases) EXPECT_EQ(parsed(arguments, ""), "[err] " + line + "rejected");
  for (const char* silent : {"-", "-x", "-h", "-1"}) EXPECT_EQ(parsed(silent), "rejected");
  for (const char letter : std::string("AEISTadlqr")) {
    const std::string option = {'-', letter, 'x'};
    EXPECT_EQ(parsed("--trace " + option),
              "Engaging options: -e20 -t -d0\n[err] Error- could not parse <" + option + ">\nrejected");
  }
}

TEST(Options, ResultsFileIsProbedThenOpened) {
  const std::string name = testing::TempDir() + "vorn_options_" + std::to_string(getpid());
  for (const int is_new : {1, 0}) {
    EXPECT_EQ(parsed("-f" + name + " -Fnight"), "");
    EXPECT_EQ(results_file_is_new, is_new);
    EXPECT_EQ(std::string(results_filename) + results_tag, name + "night");
    ASSERT_NE(results_file, nullptr);
    std::fputs("row\n", results_file);
    std::fclose(results_file);
  }
  std::ifstream file(name);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "row\nrow\n");
  std::remove(name.c_str());
}
