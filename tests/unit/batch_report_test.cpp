#include "report/batch_report.h"

#include "support/expect.h"

struct commander : bench {
  explicit commander(const std::string& arguments) : bench("-c -e9 -B -d0 -E50 " + arguments) {
    run.payload_length = 1472;
  }
  // These packets came evenly, the last one now.
  void receive(std::int64_t first, std::int64_t last, std::int64_t spacing = 1000) {
    for (std::int64_t i = first; i <= last; ++i) answer(i, (last - i) * spacing);
    stats.batch_first_seq = static_cast<std::int32_t>(first);
    stats.batch_last_seq = static_cast<std::int32_t>(last);
    stats.rx_packets = static_cast<std::uint64_t>(last - first + 1);
  }
  std::string report(int status, int result) {
    return said(result, [&] { return batch_report(&settings, &run, &stats, status); });
  }
};

static list samples_of(const sample_list& from) {
  return {from.samples, from.samples + from.count};
}

TEST(BatchReport, FirstAndLastPacketMakeASampleGood) {
  // First, last, received; bad, lost: none, one in the middle, two twice, the first, the last, all but one, all.
  const list cases[] = {{0, 49, 50, 0, 0}, {0, 49, 49, 0, 1}, {0, 49, 52, 0, -2}, {1, 49, 49, 1, 1},
                        {0, 48, 49, 1, 1}, {7, 7, 1, 1, 49},  {-1, -1, 0, 1, 50}};
  for (const list& each : cases) {
    commander c("");
    if (each[2] != 0) c.receive(each[0], each[1]);
    c.stats.rx_packets = static_cast<std::uint64_t>(each[2]);
    for (const int status : {1, -1}) EXPECT_EQ(c.report(status, 1), "");  // the batch goes on
    const int closing = each[1] == 49 ? 2 : 0;                            // by its last packet, or by silence
    EXPECT_TRUE(c.report(closing, 0).starts_with("    1:"));
    const std::int64_t bad = each[3];
    EXPECT_EQ(numbers(c.stats.bad_samples, c.stats.lost_in_bad_samples, c.stats.lost_packets),
              (list{bad, bad * each[4], (1 - bad) * each[4]}));
    EXPECT_EQ(numbers(c.settings.total_requests, c.settings.echo_count), (list{9 + bad, 9 + bad}));
    const std::int64_t rate = 1472 * 8 * (each[2] - 1) / 49;
    EXPECT_EQ(samples_of(bandwidth_samples), bad != 0 ? list{} : list{rate});
    EXPECT_EQ(samples_of(buffer_samples), bad != 0 ? list{} : list{0});
  }
}

TEST(BatchReport, FiguresAtTheirLimits) {
  commander c("-E65536 -d4294967295");
  c.run.batch = 0x7FFFFFFF;
  c.run.payload_length = 65507;
  c.receive(0, 65535, 0);
  c.slot(65535).rx_time += 1;  // 65535 packets in a microsecond, long before their time
  EXPECT_TRUE(c.report(2, 0).starts_with("-2147483648:  Pkts: 65536/65536"));
  EXPECT_EQ(samples_of(bandwidth_samples), (list{0x7FFFFFFF}));
  EXPECT_EQ(samples_of(buffer_samples), (list{0xFFFFFFFF}));
  c.slot(65535).rx_time -= 3600000000;  // the clock was set back: no span, no rate
  c.report(2, 0);
  EXPECT_EQ(samples_of(bandwidth_samples), (list{0, 0x7FFFFFFF}));
}
