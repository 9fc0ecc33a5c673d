#include "net/kernel_stamps.h"

#include "support/expect.h"

// Request 5, or packet 4 of a stream, is 9 ms old. How long ago did the answer, or packet 5, arrive that is handled now
// and that the kernel stamped `stamp_age` usec ago?
static std::int64_t age_of_arrival(const std::string& carrier, bool in_a_stream, std::int64_t stamp_age) {
  workbench b(carrier + " -s");
  b.settings.partner_mode = in_a_stream;
  b.request(5, 9000);
  b.run.last_rx_time = in_a_stream ? b.slot(5).tx_time : 0;
  b.arrival.stamp = world.now - stamp_age;
  carrier.empty() ? b.receive_icmp(datagram(icmp_message(0, 70000, 5))) : b.receive_message(message(2, 70000, 0, 5));
  EXPECT_EQ(b.stats.rx_packets, 1U);
  return world.now - (in_a_stream ? b.run.last_rx_time : b.slot(5).rx_time);
}

TEST(Arrival, IsTheKernelsStampWhereThatCanBeTrue) {
  const std::int64_t since_the_epoch = world.now;
  for (const std::string carrier : {"", "-u"}) {
    for (const bool in_a_stream : {false, true}) {
      for (const std::int64_t age : {8000, 9000, 1, 0}) EXPECT_EQ(age_of_arrival(carrier, in_a_stream, age), age);
      // From the future, long before what it answers or follows, by a date that was set, none.
      for (const std::int64_t age : list{-1, 10001, 3600000000, -3600000000, since_the_epoch})
        EXPECT_EQ(age_of_arrival(carrier, in_a_stream, age), 0) << carrier << in_a_stream << " " << age;
    }
    // A packet that overtook another of the stream came with it; no answer comes before its request.
    for (const std::int64_t age : {9001, 10000}) {
      EXPECT_EQ(age_of_arrival(carrier, true, age), 9000);
      EXPECT_EQ(age_of_arrival(carrier, false, age), 0);
    }
  }
}

// How long before now, by our clock, the kernel stamped what the date shows as `age` usec ago.
static std::int64_t age_of_stamp(std::int64_t age) {
  const timespec stamp = as_timespec(world.now + world.set_by - age);
  const clock_reading reading = read_both_clocks();
  const std::int64_t time = stamp_to_ticks(&stamp, &reading);
  return time == 0 ? -1 : reading.now - time;
}

TEST(Stamp, IsBroughtToOurTimeUnlessTheDateWasJustSet) {
  const workbench b;
  for (const std::int64_t step : list{2, -200000, 900, 5000000, -3600000000}) {
    EXPECT_EQ(age_of_stamp(30), 30);
    world.set_by += step;
    const std::int64_t from_before = std::abs(step) > 1000 ? -1 : 30;
    for (const int reading : {1, 2}) EXPECT_EQ(age_of_stamp(30), from_before) << step << " " << reading;
    world.now += 1000100;
    EXPECT_EQ(age_of_stamp(30), 30) << step;
  }
}

// A request was sent, and stamped `lag` usec later; its answer came after `trip` usec and is handled 1 ms after the
// send.
static std::int64_t printed_trip(std::int64_t lag, std::int64_t trip) {
  workbench b;
  b.run.stamps_sends = 1;
  b.request(0);
  const std::int64_t sent = world.now;
  world.now += 1000;
  world.send_stamps.emplace_back(0, sent + lag);
  take_send_stamps(&b.run);
  settle_answered(&b.slot(0), 0, 1, sent + trip);
  return b.slot(0).rx_time - b.slot(0).tx_time;
}

TEST(Stamp, OfASendIsTakenWhereItCanBeTrue) {
  EXPECT_EQ(printed_trip(40, 500), 460);
  EXPECT_EQ(printed_trip(500, 500), 0);
  for (const std::int64_t lag : list{-1, 501, 1001, -3600000000, 3600000000}) EXPECT_EQ(printed_trip(lag, 500), 500);
}

// Whether a send that was refused took a number depends on the kernel: they are counted anew behind it.
TEST(Stamp, BelongsToThePacketOfItsNumber) {
  workbench b("-e9 -a9");
  b.run.stamps_sends = 1;
  for (const bool refused : {false, true, false, false}) {
    world.meets = [refused](call which) { return refused && which == call::sendto ? EPERM : 0; };
    said([&] { (void)send_test_packet(&b.settings, &b.run, &b.stats, nullptr); });
  }
  world.now += 100;
  for (const std::uint32_t number : {1U, 0U, 4000000000U})
    world.send_stamps.emplace_back(number, world.now - 60 - number);
  take_send_stamps(&b.run);
  EXPECT_EQ(numbers(b.slot(0).stamp_lag_usec, b.slot(2).stamp_lag_usec, b.slot(3).stamp_lag_usec), (list{0, 40, 39}));
}
