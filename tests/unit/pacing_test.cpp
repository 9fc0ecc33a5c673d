#include "engine/pacing.h"

#include "base/test_end.h"
#include "support/expect.h"

// What the pacing releases `elapsed` usec after its last release.
static std::uint32_t due_after(workbench* b, std::int64_t elapsed) {
  b->run.last_tx_time = world.now - elapsed;
  b->run.step_time = 0;
  return packets_due(&b->settings, &b->run);
}

static void stand_at(workbench* b, std::int64_t total, std::int64_t sent, std::int64_t reported) {
  b->settings.total_requests = static_cast<std::uint32_t>(total);
  b->run.current_tx__packet = static_cast<std::uint32_t>(sent);
  b->run.oldest_outstanding = static_cast<std::uint32_t>(reported);
}

TEST(PacketsDue, FirstReleaseIsABurst) {
  const std::pair<const char*, std::uint32_t> cases[] = {
      // of 10 ms, but of one packet at least
      {"-d100000", 1},          {"-d10001 -a9 -e20", 1}, {"-d1000 -a5 -e20", 5},
      {"-d1000 -a50 -e20", 10}, {"-d1000 -a50 -e4", 4},  {"-d0 -a65534 -e", 10000},
      {"-d1000 -i -e20", 10},   {"-c -E5 -d1", 1},       {"-c -p -E5 -d1", 1}};
  for (const auto& [arguments, due] : cases) {
    workbench b(arguments);
    EXPECT_EQ(due_after(&b, 777), due) << arguments;
    b.settings.command_mode = 0;
    b.settings.partner_mode = b.settings.tcp = 1;
    EXPECT_EQ(due_after(&b, 1000000), 0U);  // a TCP monitor sends nothing
  }
}

TEST(PacketsDue, CreditIsSpentInWholePeriods) {
  workbench b("-d30000 -a1000 -e1000");
  b.run.current_tx__packet = 1;
  // The time that passed, what is due, the remainder then.
  const list cases[] = {{29999, 0, 0},     {100000, 3, 10000}, {19999, 0, 10000}, {20000, 1, 0},
                        {59999, 1, 29999}, {0, 0, 29999},      {1, 1, 0}};
  for (const list& each : cases) {
    const std::uint32_t due = due_after(&b, each[0]);
    EXPECT_EQ(numbers(each[0], due, b.run.pacing_remainder_usec), each);
    EXPECT_EQ(b.run.last_tx_time, due != 0 ? world.now : world.now - each[0]);  // nothing spent, nothing noted
  }
}

TEST(PacketsDue, WindowAndTotalNearTheWraps) {
  constexpr std::int64_t all = 0xFFFFFFFF;
  // Whether answers are ignored, total, sent, reported, usec passed; what a window of 8 lets go of one packet a usec.
  const list cases[] = {{0, all, 100, 97, 50, 5},
                        {0, all, 100, 91, 50, 0},
                        {0, 102, 100, 98, 50, 2},
                        {0, all, 100, 98, 3000000000, 6},
                        {0, all, 0x7FFFFFFE, 0x7FFFFFFC, 50, 6},
                        {0, all, 0xFFFFFFF0, 0xFFFFFFEE, 14, 6},
                        {0, all, 0xFFFFFFFC, 0xFFFFFFFA, 50, 3},
                        {1, 0x7FFFFFFF, 0x7FFFFFF0, 0, 3000000000, 15}};
  for (const list& each : cases) {
    workbench b("-d1 -a8");
    b.settings.ignore_responses = static_cast<std::uint32_t>(each[0]);
    stand_at(&b, each[1], each[2], each[3]);
    EXPECT_EQ(due_after(&b, each[4]), each[5]) << testing::PrintToString(each);
  }
}

TEST(PacketsDue, WhatCouldNotBeSentStaysDue) {
  workbench b("-p -d1000 -a50 -e9999");
  EXPECT_EQ(due_after(&b, 0), 10U);
  return_credit(10, &b.settings, &b.run);  // nothing was sent yet: the first burst is due again, once
  EXPECT_EQ(due_after(&b, 0), 10U);
  b.run.current_tx__packet = 3;
  return_credit(7, &b.settings, &b.run);
  EXPECT_EQ(due_after(&b, 2000), 9U);
}

TEST(Duration, DoesNotEndWhatAMonitorServes) {
  for (const auto& [arguments, over] : {std::pair{"-S1", true}, {"--server -S1", false}, {"--server -i -S1", true}}) {
    workbench b(arguments);
    b.stats.start_time -= 2000000;
    EXPECT_EQ(sending_is_over(&b.settings, &b.stats), over) << arguments;
  }
}

TEST(Wait, UntilTheFirstThingIsDueAndNoLonger) {
  const list cases[] = {// ages of the older (-1: answered) and the newer request, the total, the window; the wait
                        {30000, 30000, 2, 2, 170000}, {30000, 30000, 9, 2, 170000}, {30000, 30000, 9, 5, 70000},
                        {150000, 30000, 9, 5, 50000}, {-1, 30000, 2, 2, 200000},    {200000, 30000, 9, 5, 0},
                        {300000, 30000, 9, 5, 0},     {30000, 170000, 9, 5, 0}};
  for (const list& each : cases) {
    for (const std::int64_t older : {0LL, 65535LL, 0x7FFFFFFFLL}) {
      workbench b("-a" + std::to_string(each[3]));
      b.request(older, each[0]);
      if (each[0] == -1) b.answer(older);
      b.request(older + 1, each[1]);
      stand_at(&b, older + each[2], older + 2, older);
      EXPECT_EQ(time_until_next_event(&b.settings, &b.run), each[4]) << testing::PrintToString(each);
    }
  }
  workbench b;
  b.settings.timeout_usec = 0x80000000;  // never negative
  EXPECT_EQ(time_until_timeout(&b.settings, &b.run), 0x7FFFFFFF);
  b.settings.partner_mode = 1;
  EXPECT_EQ(time_until_next_event(&b.settings, &b.run), 1000000);
  b.settings.duration_sec = 4295;
  for (const bool over : {false, true}) {
    note_duration(&b.settings, &b.stats, b.stats.start_time + 4295000000 + over, &b.run);
    EXPECT_EQ(b.run.stop_requested, over);
  }
}
