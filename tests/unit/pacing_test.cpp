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
  const struct {
    std::int64_t elapsed = 0, due = 0, remainder = 0;
  } steps[] = {{.elapsed = 29999},
               {.elapsed = 100000, .due = 3, .remainder = 10000},
               {.elapsed = 19999, .remainder = 10000},
               {.elapsed = 20000, .due = 1},
               {.elapsed = 59999, .due = 1, .remainder = 29999},
               {.remainder = 29999},
               {.elapsed = 1, .due = 1}};
  for (const auto& [elapsed, due, remainder] : steps) {
    EXPECT_EQ(due_after(&b, elapsed), due);
    EXPECT_EQ(b.run.pacing_remainder_usec, remainder);
    EXPECT_EQ(b.run.last_tx_time, due != 0 ? world.now : world.now - elapsed);  // nothing spent, nothing noted
  }
}

TEST(PacketsDue, WindowAndTotalNearTheWraps) {
  constexpr std::int64_t all = 0xFFFFFFFF;
  const struct {
    const char* options = "";
    std::int64_t total = all, sent, reported, elapsed = 50, due;  // of one packet a usec
  } cases[] = {
      {.sent = 100, .reported = 97, .due = 5},
      {.sent = 100, .reported = 91, .due = 0},
      {.total = 102, .sent = 100, .reported = 98, .due = 2},
      {.sent = 100, .reported = 98, .elapsed = 3000000000, .due = 6},
      {.sent = 0x7FFFFFFE, .reported = 0x7FFFFFFC, .due = 6},
      {.sent = 0xFFFFFFF0, .reported = 0xFFFFFFEE, .elapsed = 14, .due = 6},
      {.sent = 0xFFFFFFFC, .reported = 0xFFFFFFFA, .due = 3},
      {.options = " -i", .total = 0x7FFFFFFF, .sent = 0x7FFFFFF0, .reported = 0, .elapsed = 3000000000, .due = 15}};
  for (const auto& [options, total, sent, reported, elapsed, due] : cases) {
    workbench b(std::string("-d1 -a8") + options);
    stand_at(&b, total, sent, reported);
    EXPECT_EQ(due_after(&b, elapsed), due) << sent << " sent, " << reported << " reported";
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
  constexpr std::int64_t answered = -1;
  const struct {
    std::int64_t older_age = 30000, newer_age = 30000, total = 9, window = 5, wait = 0;
  } cases[] = {{.total = 2, .window = 2, .wait = 170000},
               {.window = 2, .wait = 170000},
               {.wait = 70000},
               {.older_age = 150000, .wait = 50000},
               {.older_age = answered, .total = 2, .window = 2, .wait = 200000},
               {.older_age = 200000},
               {.older_age = 300000},
               {.newer_age = 170000}};
  for (const auto& [older_age, newer_age, total, window, wait] : cases) {
    for (const std::int64_t older : {0LL, 65535LL, 0x7FFFFFFFLL}) {
      workbench b("-a" + std::to_string(window));
      b.request(older, older_age);
      if (older_age == answered) b.answer(older);
      b.request(older + 1, newer_age);
      stand_at(&b, older + total, older + 2, older);
      EXPECT_EQ(time_until_next_event(&b.settings, &b.run), wait) << older_age << " and " << newer_age;
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
