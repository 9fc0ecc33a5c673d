#include "base/clock.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

std::int64_t ticks_per_second = 0;

namespace {

constexpr std::int64_t nsec_per_usec = 1000;
constexpr std::int64_t nsec_per_second = 1000000000;

constexpr std::int64_t least_noise_nsec = 1000;      // between two readings that nothing came between
constexpr std::int64_t most_noise_nsec = 20000;      // where the clocks are slow to read
constexpr std::int64_t smallest_set_nsec = 1000000;  // less may come between them: this process lost the processor
constexpr int most_attempts = 5;

// Where our clock started, and what is known of the date since.
struct clock_origin {
  std::int64_t ticks;             // 0 = not yet
  std::int64_t monotonic_nsec;    // CLOCK_MONOTONIC then
  std::int64_t noise_nsec;        // of a reading of both clocks
  std::int64_t lead_nsec;         // of the date, as last measured
  std::int64_t stamps_true_from;  // ticks; earlier ones may be by a date that was set since
};

clock_origin origin = {
    .ticks = 0, .monotonic_nsec = 0, .noise_nsec = least_noise_nsec, .lead_nsec = 0, .stamps_true_from = 0};

std::int64_t as_nsec(const timespec* time) {
  return static_cast<std::int64_t>(time->tv_sec) * nsec_per_second + static_cast<std::int64_t>(time->tv_nsec);
}

std::int64_t nsec_of(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return as_nsec(&now);
}

struct lead_measurement {
  std::int64_t lead_nsec;
  std::int64_t took_nsec;
};

// The processor may be taken away between two readings: of some attempts the one that took least time counts.
lead_measurement measure_lead() {
  std::int64_t lead = 0;
  std::int64_t shortest = std::numeric_limits<std::int64_t>::max();
  for (int attempt = 0; attempt < most_attempts && shortest > origin.noise_nsec; ++attempt) {
    const std::int64_t before = nsec_of(CLOCK_MONOTONIC);
    const std::int64_t date = nsec_of(CLOCK_REALTIME);
    const std::int64_t took = nsec_of(CLOCK_MONOTONIC) - before;
    if (took >= shortest) continue;
    shortest = took;
    lead = date - before - took / 2;
  }
  return {.lead_nsec = lead, .took_nsec = shortest};
}

void start_clock() {
  timeval date = {};
  gettimeofday(&date, nullptr);
  origin.monotonic_nsec = nsec_of(CLOCK_MONOTONIC);
  origin.ticks = static_cast<std::int64_t>(date.tv_sec) * usec_per_second + static_cast<std::int64_t>(date.tv_usec);
  const lead_measurement first = measure_lead();
  origin.lead_nsec = first.lead_nsec;
  origin.noise_nsec = std::clamp(first.took_nsec, least_noise_nsec, most_noise_nsec);
}

std::int64_t monotonic_to_ticks(std::int64_t nsec) {
  ticks_per_second = usec_per_second;
  if (origin.ticks == 0) start_clock();
  return origin.ticks + (nsec - origin.monotonic_nsec) / nsec_per_usec;
}

// Frames that wait to be read were stamped by the date as it was. Brought to our time by its new lead they seem older
// by what it was set forward, or younger by what it was set back; those that are too young by more than a second show
// it, since they are yet to come.
void distrust_stamps(std::int64_t now, std::int64_t set_back_nsec) {
  origin.stamps_true_from = now + std::clamp<std::int64_t>(set_back_nsec / nsec_per_usec, 0, usec_per_second);
}

}  // namespace

std::int64_t clock_now() {
  if (origin.ticks == 0) start_clock();
  return monotonic_to_ticks(nsec_of(CLOCK_MONOTONIC));
}

// Both clocks follow the same adjustments of their rate, so the lead is known but for noise until the date is set.
clock_reading read_both_clocks() {
  const std::int64_t monotonic = nsec_of(CLOCK_MONOTONIC);
  const std::int64_t lead = nsec_of(CLOCK_REALTIME) - monotonic;
  clock_reading reading = {.now = monotonic_to_ticks(monotonic), .date_lead_nsec = origin.lead_nsec};
  if (std::abs(lead - origin.lead_nsec) <= origin.noise_nsec) return reading;
  const std::int64_t measured = measure_lead().lead_nsec;
  if (std::abs(measured - origin.lead_nsec) <= origin.noise_nsec) return reading;
  if (std::abs(measured - origin.lead_nsec) > smallest_set_nsec)
    distrust_stamps(reading.now, origin.lead_nsec - measured);
  reading.date_lead_nsec = origin.lead_nsec = measured;
  return reading;
}

std::int64_t stamp_to_ticks(const timespec* stamp, const clock_reading* reading) {
  const std::int64_t ticks = monotonic_to_ticks(as_nsec(stamp) - reading->date_lead_nsec);
  return ticks >= origin.stamps_true_from ? ticks : 0;
}

// Whole seconds and the rest apart: a run of 106 days has more ticks than can be multiplied by a million. At the usual
// rate nothing is left to divide, some ten times a round trip.
std::int64_t ticks_to_usec(std::int64_t ticks) {
  if (ticks_per_second == usec_per_second) return ticks;
  const std::int64_t seconds = ticks / ticks_per_second;
  return seconds * usec_per_second + (ticks % ticks_per_second) * usec_per_second / ticks_per_second;
}

std::int64_t usec_to_ticks(std::int64_t usec) {
  if (ticks_per_second == usec_per_second) return usec;
  return usec / usec_per_second * ticks_per_second + usec % usec_per_second * ticks_per_second / usec_per_second;
}

std::int64_t usec_between(std::int64_t earlier, std::int64_t later) {
  return ticks_to_usec(later - earlier);
}

int usec_as_int(std::int64_t usec) {
  return static_cast<int>(std::min<std::int64_t>(usec, std::numeric_limits<int>::max()));
}

double usec_to_seconds(std::int64_t usec) {
  return static_cast<double>(usec) / static_cast<double>(usec_per_second);
}
