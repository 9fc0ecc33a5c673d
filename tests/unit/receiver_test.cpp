#include "net/receiver.h"

#include "app/signals.h"
#include "support/expect.h"

// What half a message comes to, and after how long, when the rest follows `pause` usec later. Of several stops
// in a process only the first raises a signal; that is noted for good.
static std::string receive_halves(std::int64_t pause, bool stop = false) {
  workbench b("-c -p -s");
  b.connect(SOCK_STREAM);
  const byte_vector whole = message(3, 5, 0, 7, 40);
  b.write_to_code(prefix(whole, 25));
  world.after(pause, [&] { b.write_to_code({whole.begin() + 25, whole.end()}); });
  if (stop && stop_signal() == 0) world.after(0, [] { std::raise(SIGTERM); });
  const std::int64_t start = world.now;
  const int result = receive_one_frame(&b.settings, &b.run, &b.stats, 1000);
  return std::to_string(result) + " after " + std::to_string(world.now - start);
}

TEST(Receiver, WaitsForTheRestOfAMessageButNotForEver) {
  EXPECT_EQ(receive_halves(9999999), "1 after 9999999");
  EXPECT_EQ(receive_halves(10000001), "-1 after 10000000");
  apart([] {  // a stop signal leaves the rest a tenth of a second
    catch_signals(true);
    EXPECT_EQ(receive_halves(99999, true), "1 after 99999");
    EXPECT_EQ(receive_halves(100001, true), "-1 after 100000");
  });
}
