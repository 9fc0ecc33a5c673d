#include "engine/pacing.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"

namespace {

constexpr std::int64_t first_burst_usec = 10000;       // the credit a test starts with
constexpr std::int64_t longest_overshoot_usec = 2000;  // by which a wait may end late; more is another matter
constexpr std::int64_t partner_wait_usec = 1000000;    // a silence this long ends a batch

std::uint32_t requests_left(const test_settings* settings, const run_state* run) {
  return run->current_tx__packet < settings->total_requests ? settings->total_requests - run->current_tx__packet : 0;
}

// Room that the window leaves, counted in 64 bits: a machine that slept for an hour owes more than 2^31 packets.
std::int64_t window_room(const test_settings* settings, const run_state* run) {
  const std::uint32_t unreported = run->current_tx__packet - run->oldest_outstanding;
  return std::max<std::int64_t>(static_cast<std::int64_t>(settings->max_outstanding) - unreported, 0);
}

// At a packet a millisecond, a test that comes back after 10.4 ms owes ten packets and keeps 0.4 ms for the next
// release.
std::uint32_t credit_in_packets(const test_settings* settings, const run_state* run, std::int64_t elapsed) {
  if (elapsed == 0) return 0;
  return static_cast<std::uint32_t>((run->pacing_remainder_usec + elapsed) / settings->delay_usec);
}

// One delay after the release of now was due, for every period of credit that it spends. A release that is late for
// another reason than the end of its wait (a full window, a stalled or stopped process) begins the schedule anew, and
// none is planned further ahead than one delay.
std::int64_t plan_next_release(const test_settings* settings, const run_state* run, std::int64_t now,
                               std::uint32_t periods) {
  const std::int64_t delay = usec_to_ticks(settings->delay_usec);
  const bool on_schedule = run->current_tx__packet != 0 && now >= run->next_tx_time &&
                           usec_between(run->next_tx_time, now) <= longest_overshoot_usec;
  return on_schedule ? std::min(run->next_tx_time + periods * delay, now + delay) : now + delay;
}

std::int64_t usec_until_next_release(const test_settings* settings, const run_state* run, std::int64_t now) {
  return std::min<std::int64_t>(usec_between(now, run->next_tx_time), settings->delay_usec);
}

std::int64_t as_wait(std::int64_t usec) {
  return std::clamp<std::int64_t>(usec, 0, std::numeric_limits<std::int32_t>::max());
}

std::int64_t usec_until_timeout(const test_settings* settings, const run_state* run, std::int64_t now) {
  const packet_slot* oldest = slot_of(run, run->oldest_outstanding);
  const std::int64_t timeout = settings->timeout_usec;
  return oldest->outstanding != 0 ? timeout - usec_between(oldest->tx_time, now) : timeout;
}

}  // namespace

std::uint32_t packets_due(const test_settings* settings, run_state* run) {
  if (is_monitor(settings) && uses_tcp(settings)) return 0;  // a TCP monitor never transmits

  const std::int64_t now = time_of_step(run);
  const bool nothing_sent = run->current_tx__packet == 0;
  const std::int64_t elapsed = nothing_sent ? first_burst_usec : usec_between(run->last_tx_time, now);

  const std::uint32_t periods = credit_in_packets(settings, run, elapsed);
  std::uint32_t due = periods;
  if (nothing_sent && due == 0) due = 1;
  due = std::min(due, requests_left(settings, run));
  if (is_commander(settings)) due = 1;
  if (settings->ignore_responses == 0) {
    due = static_cast<std::uint32_t>(std::min<std::int64_t>(due, window_room(settings, run)));
  }

  if (due != 0) {
    run->next_tx_time = plan_next_release(settings, run, now, periods);
    run->last_tx_time = now;
    run->pacing_remainder_usec = (run->pacing_remainder_usec + elapsed) % settings->delay_usec;
  }
  return due;
}

void return_credit(std::uint32_t packets, const test_settings* settings, run_state* run) {
  if (run->current_tx__packet == 0) return;
  run->pacing_remainder_usec += std::int64_t{packets} * settings->delay_usec;
}

std::int64_t time_until_next_event(const test_settings* settings, run_state* run) {
  if (is_partner(settings)) return partner_wait_usec;

  const std::int64_t now = time_of_step(run);
  std::int64_t wait = usec_until_timeout(settings, run, now);
  const bool more_to_send = run->current_tx__packet < settings->total_requests;
  const bool window_has_room = run->current_tx__packet - run->oldest_outstanding < settings->max_outstanding;
  if (more_to_send && window_has_room) wait = std::min(wait, usec_until_next_release(settings, run, now));
  return as_wait(wait);
}

std::int64_t time_until_timeout(const test_settings* settings, const run_state* run) {
  return as_wait(usec_until_timeout(settings, run, clock_now()));
}

std::int64_t time_until_next_release(const test_settings* settings, const run_state* run) {
  return usec_until_next_release(settings, run, clock_now());
}

bool release_is_due(const run_state* run, std::int64_t now) {
  return now > run->next_tx_time;
}
