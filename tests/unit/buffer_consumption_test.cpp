#include "report/batch_judgement.h"

#include <map>

#include "support/expect.h"

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
