#include "net/arrival.h"

#include "net/icmp_handler.h"
#include "net/message_handler.h"
#include "support/expect.h"

// Request 5, or packet 4 of a stream, is 9 ms old. How long ago did the answer, or packet 5, arrive that is handled now
// and that the kernel stamped `stamp_age` usec ago?
static std::int64_t age_of_arrival(const std::string& carrier, bool in_a_stream, std::int64_t stamp_age) {
  workbench b(carrier + " -s");
  b.settings.partner_mode = in_a_stream;
  b.request(5, 9000);
  b.run.last_rx_time = in_a_stream ? b.slot(5).tx_time : 0;
  b.arrival.stamp = world.now - stamp_age;
  if (carrier.empty()) {
    const byte_vector frame = datagram(icmp_message(0, 70000, 5));
    (void)handle_icmp_response(frame.data(), static_cast<int>(frame.size()), &b.handled_now(), &b.settings, &b.stats,
                               &b.run);
  } else {
    byte_vector frame = message(2, 70000, 0, 5);
    (void)handle_test_message(b.settings.start_host, 0, frame.data(), static_cast<int>(frame.size()), &b.handled_now(),
                              &b.settings, &b.stats, &b.run);
  }
  EXPECT_EQ(b.stats.rx_packets, 1U);
  return world.now - (in_a_stream ? b.run.last_rx_time : b.slot(5).rx_time);
}

TEST(Arrival, IsTheKernelsStampWhereThatCanBeTrue) {
  const std::int64_t since_the_epoch = world.now;
  for (const std::string carrier : {"", "-u"}) {
    for (const bool in_a_stream : {false, true}) {
      for (const std::int64_t age : {8000, 9000, 1, 0}) EXPECT_EQ(age_of_arrival(carrier, in_a_stream, age), age);
      // From the future, before what it answers or follows, by a clock that was set, none.
      for (const std::int64_t age : list{-1, 9001, 3600000000, -3600000000, since_the_epoch})
        EXPECT_EQ(age_of_arrival(carrier, in_a_stream, age), 0) << carrier << in_a_stream << " " << age;
    }
  }
}
