#include "report/batch_line.h"

#include "report/batch_judgement.h"
#include "support/expect.h"

static std::string line_of(const std::string& arguments, std::uint32_t number, bool bad = false) {
  workbench b(arguments + " -c -E50");  // of 50 packets 47 came in 48 ms
  b.run.batch = number;
  b.run.payload_length = 1472;
  b.stats.rx_packets = 47;
  b.stats.late_arrivals = 2;
  b.stats.latency_min = 900;
  b.stats.latency_max = 2100;
  b.stats.batch_last_seq = 49;
  b.stats.buffer_consumption_usec = 1234.5;
  b.stats.lost_packets = 0x180000000;
  b.stats.bad_samples = 4;
  for (const std::uint32_t rate : {10000U, 11000U, 12000U}) sample_list_add(&bandwidth_samples, rate);
  for (const std::uint32_t buffer : {100U, 1500U, 0xF0000000U}) sample_list_add(&buffer_samples, buffer);
  const batch_judgement batch = {.span_usec = 48000, .rate_kbps = 10000, .lost = 3, .bad = bad};
  return said([&] { print_batch_line(&b.settings, &b.run, &b.stats, &batch); });
}

TEST(BatchLine, OfEveryStyleAndItsLabels) {
  const std::string brief = ":  Pkts:  47/50    11.3 mbps  ";
  const std::string verbose =
      ": |    X    2    3    4    5    6    |   3/ 50   6.00% lost,   2 late   979.2 rx/s,  11.3 Mbps D=0.048, "
      "m/M/a   0.900/  2.100/  1.021, ";
  const std::string rates = " 12.0  11.0  10.0  10.0  10.0  10.0  10.0    1.2 msec ";
  const std::string buffers = "  0.1   1.5 4026531.8 4026531.8 4026531.8 4026531.8 4026531.8 ";
  const std::string end = "  Lost: -2147483648  Bad Samples: 4\n";
  const std::string labels = "  0.0  50.0  90.0  95.0  98.0  99.0  99.9 ";
  const std::string gap(12, ' ');
  const std::string margin(35, ' ');
  const std::string cases[][3] = {
      // options, the line, the labels above it
      {"", brief + rates + end, margin + labels + gap + "\n"},
      {"-B -b", brief + "   1.2 msec " + buffers + end, margin + gap + labels + "\n"},
      {"-v -b", verbose + rates + buffers + "\n", std::string(140, ' ') + labels + gap + labels + "\n"},
      {"-Q", "", margin + gap + "\n"}};
  for (const auto& [arguments, line, label_row] : cases) {
    for (const std::uint32_t number : {49U, 50U, 65550U}) {
      const std::string shown =
          arguments == "-Q" ? "\n" : std::string(number == 65550 ? "" : "   ") + std::to_string(number) + line;
      EXPECT_EQ(line_of(arguments, number), number % 50 == 0 ? label_row + shown : shown);
    }
  }
  EXPECT_EQ(line_of("-Q -e7", 7), "    7" + brief + rates + end);  // the last batch
  EXPECT_EQ(line_of("-v", 7, true), "    7:*" + verbose.substr(2) + rates + "\n");
  EXPECT_EQ(line_of("-B", 7, true), "    7:*" + brief.substr(2) + "   1.2 msec " + end);
}
