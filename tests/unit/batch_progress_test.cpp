#include "engine/batch_progress.h"

#include <map>

#include "report/batch_judgement.h"
#include "support/expect.h"

using samples = std::vector<std::uint32_t>;

TEST(BatchReport, FirstAndLastPacketMakeASampleGood) {
  const struct {
    std::int32_t first = 0, last = 49;
    std::uint64_t received = 50;
    std::int64_t lost = 0, bad = 0;
  } cases[] = {{},
               {.received = 49, .lost = 1},  // in the middle
               {.received = 52, .lost = -2},
               {.first = 1, .received = 49, .lost = 1, .bad = 1},
               {.last = 48, .received = 49, .lost = 1, .bad = 1},
               {.first = 7, .last = 7, .received = 1, .lost = 49, .bad = 1},
               {.first = -1, .last = -1, .received = 0, .lost = 50, .bad = 1}};
  for (const auto& [first, last, received, lost, bad] : cases) {
    workbench b("-c -e9 -B -d0 -E50");
    const auto report = [&](frame_result status, int result) {
      return said(result, [&] { return batch_report(&b.settings, &b.run, &b.stats, status); });
    };
    for (int i = std::max(first, 0); i <= last; ++i) b.answer(i, -1000 * i);
    b.run.payload_length = 1472;
    b.stats.batch_first_seq = first;
    b.stats.batch_last_seq = last;
    b.stats.rx_packets = received;
    for (const frame_result status : {frame_counted, frame_failed})
      EXPECT_EQ(report(status, 1), "");  // the batch goes on
    EXPECT_TRUE(report(last == 49 ? frame_ends_batch : frame_none, 0)
                    .starts_with("    1:"));  // by its last packet, or by silence
    EXPECT_EQ(numbers(b.stats.bad_samples, b.stats.lost_in_bad_samples, b.stats.lost_packets),
              (list{bad, bad * lost, (1 - bad) * lost}));
    EXPECT_EQ(numbers(b.settings.total_requests, b.settings.echo_count), (list{9 + bad, 9 + bad}));
    const auto rate_kbps = static_cast<std::uint32_t>(1472 * 8 * (received - 1) / 49);
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

// Of arrivals at usec by sequence number. The last number received is `last`, else the highest.
static double consumption(const std::map<int, int>& arrivals, std::uint32_t delay, int last = -2) {
  workbench b;
  b.settings.delay_usec = delay;
  b.stats.buffer_consumption_usec = 7.5;  // of the batch before
  for (const auto& [sequence, usec] : arrivals) b.answer(sequence, -usec);
  b.stats.batch_last_seq = last != -2 ? last : arrivals.rbegin()->first;
  compute_buffer_consumption(&b.run, &b.stats, &b.settings);
  return b.stats.buffer_consumption_usec;
}

TEST(BufferConsumption, OfStreamsWholeAndTorn) {
  EXPECT_EQ(consumption({}, 1000, -1), 0.0);                                       // nothing arrived
  EXPECT_EQ(consumption({{0, 5}}, 1000), 7.5);                                     // a single packet tells nothing
  EXPECT_EQ(consumption({{0, 0}, {1, 600}, {2, 2700}, {3, 3000}}, 1000), 1100.0);  // early by 400, late by 700
  // Exact on every processor, also on one that can fuse a product with a sum.
  EXPECT_EQ(consumption({{0, 0}, {1, 40}, {2, 45}, {3, 117}, {4, 121}, {5, 129}, {6, 134}}, 1), 50.0);
  EXPECT_EQ(consumption({{0, 0}, {1, 500}, {2, 1500}, {3, 1800}}, 999), 400.0);  // below 1 ms: the mean, 600
  EXPECT_EQ(consumption({{0, 0}, {1, 1300}, {3, 9000}, {4, 9500}, {5, 11700}}, 1000), 1200.0);  // a gap: begins anew
  EXPECT_EQ(consumption({{2, 0}, {3, 1250}, {4, 2500}}, 1000), 250.0);                          // the first two lost
  EXPECT_EQ(consumption({{0, 0}, {1, 1100}, {2, 2000}, {3, 3500}}, 1000, 2), 100.0);            // 3 came before 2
  EXPECT_EQ(consumption({{0, 0}, {1, 1100}, {2, 2000}}, 1000, 65535), 100.0);                   // a slot not received
}
