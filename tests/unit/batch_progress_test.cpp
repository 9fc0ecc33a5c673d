#include "engine/batch_progress.h"

#include "support/expect.h"

using samples = std::vector<std::uint32_t>;

TEST(BatchReport, FirstAndLastPacketMakeASampleGood) {
  // First, last, received; bad, lost: none, one in the middle, two twice, the first, the last, all but one, all.
  const list cases[] = {{0, 49, 50, 0, 0}, {0, 49, 49, 0, 1}, {0, 49, 52, 0, -2}, {1, 49, 49, 1, 1},
                        {0, 48, 49, 1, 1}, {7, 7, 1, 1, 49},  {-1, -1, 0, 1, 50}};
  for (const list& each : cases) {
    workbench b("-c -e9 -B -d0 -E50");
    const auto report = [&](frame_result status, int result) {
      return said(result, [&] { return batch_report(&b.settings, &b.run, &b.stats, status); });
    };
    for (std::int64_t i = std::max<std::int64_t>(each[0], 0); i <= each[1]; ++i) b.answer(i, -1000 * i);
    b.run.payload_length = 1472;
    b.stats.batch_first_seq = static_cast<std::int32_t>(each[0]);
    b.stats.batch_last_seq = static_cast<std::int32_t>(each[1]);
    b.stats.rx_packets = static_cast<std::uint64_t>(each[2]);
    for (const frame_result status : {frame_counted, frame_failed})
      EXPECT_EQ(report(status, 1), "");  // the batch goes on
    EXPECT_TRUE(report(each[1] == 49 ? frame_ends_batch : frame_none, 0)
                    .starts_with("    1:"));  // by its last packet, or by silence
    const std::int64_t bad = each[3];
    EXPECT_EQ(numbers(b.stats.bad_samples, b.stats.lost_in_bad_samples, b.stats.lost_packets),
              (list{bad, bad * each[4], (1 - bad) * each[4]}));
    EXPECT_EQ(numbers(b.settings.total_requests, b.settings.echo_count), (list{9 + bad, 9 + bad}));
    const auto rate_kbps = static_cast<std::uint32_t>(1472 * 8 * (each[2] - 1) / 49);
    EXPECT_EQ(samples_of(bandwidth_samples), bad != 0 ? samples{} : samples{rate_kbps});
    EXPECT_EQ(samples_of(buffer_samples), bad != 0 ? samples{} : samples{0});
  }
}

TEST(BatchReport, CountsOfATestSaturate) {
  workbench b("-c -e4294967295 -E5");
  said(0, [&] { return batch_report(&b.settings, &b.run, &b.stats, frame_none); });
  EXPECT_EQ(numbers(b.stats.bad_samples, b.settings.total_requests, b.settings.echo_count),
            (list{1, 0xFFFFFFFF, 0xFFFFFFFF}));
}

TEST(BatchReport, FiguresThatDoNotFitBecomeTheLargest) {  // many duplicates; packets hours ahead of their schedule
  workbench b("-c -e9 -B -d4294967295 -E4");
  for (std::int64_t i = 0; i < 4; ++i) b.answer(i, -i);
  b.run.payload_length = 65515;
  b.stats.batch_first_seq = 0;
  b.stats.batch_last_seq = 3;
  b.stats.rx_packets = 100;
  said(0, [&] { return batch_report(&b.settings, &b.run, &b.stats, frame_ends_batch); });
  EXPECT_EQ(samples_of(bandwidth_samples), (samples{0x7FFFFFFF}));
  EXPECT_EQ(samples_of(buffer_samples), (samples{0xFFFFFFFF}));
}
