#include "report/packet_lines.h"

#include <cstdio>

#include "base/address_text.h"
#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "wire/icmp_echo.h"

// The clock is read anew: the line says when the packet leaves, not when its release was decided.
void print_debug_line(const test_settings* settings, const run_state* run, const test_stats* stats,
                      std::uint32_t sequence) {
  if (settings->debug == 0 || !speaks(settings)) return;
  std::fprintf(stdout, "%8.6f: Tx one, process_id = %08x, *current_tx__packet = %d, batch = %d\n",
               usec_to_seconds(usec_between(stats->start_time, clock_now())), settings->process_id, low32(sequence),
               low32(run->batch));
}

void print_reception(std::uint32_t sequence, std::uint8_t icmp_type, std::int64_t usec, std::uint32_t source) {
  std::fprintf(stdout, "%12d: Received %s in %9.6fs from %s\n", low32(sequence), icmp_type_names[icmp_type],
               usec_to_seconds(usec), address_text(source));
}

void print_timeout(std::uint32_t sequence, const packet_slot* slot) {
  std::fprintf(stdout, "%12d: TIMEOUT in %9.6fs, expected rsp from %s\n", low32(sequence),
               usec_to_seconds(usec_between(slot->tx_time, slot->rx_time)), address_text(slot->destination));
}
