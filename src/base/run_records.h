// The records that describe one run besides its settings.
//
// Times are clock ticks (base/clock.h), addresses IPv4 in network byte order, sequence numbers unsigned 32-bit.
#pragma once

#include <cstdint>

struct test_settings;

// Powers of two: a slot is found by masking. As many as there are sequence numbers in an ICMP header are never too few;
// a test that looks back no further than its window has fewer, since memory that was never touched costs a page fault.
inline constexpr std::uint32_t packet_table_slots = 65536;
inline constexpr std::uint32_t fewest_packet_slots = 64;
inline constexpr std::int64_t longest_stamp_lag_usec = (1 << 24) - 1;

// One request in flight; the slot of sequence number n is n & (packet_table_size - 1).
struct packet_slot {
  std::uint32_t outstanding;          // 1 while the request awaits its answer
  std::uint32_t sequence;             // run_state.current_tx__packet when it was sent
  std::uint16_t slot_index;           // its own index in the table
  std::uint16_t process_id;           // low 16 bits of test_settings.process_id at send
  std::uint32_t responder;            // who answered: address; 0 = nobody yet
  std::uint32_t destination;          // address
  std::uint32_t response_type : 8;    // ICMP type of the answer
  std::uint32_t stamp_lag_usec : 24;  // usec from tx_time to the kernel's stamp of the send; 0 = none
  std::int64_t tx_time;               // ticks
  std::int64_t rx_time;               // ticks; also when the request was settled as lost
};

struct run_state {
  std::uint32_t oldest_outstanding;    // lower edge of the window: the oldest request not yet reported
  std::uint32_t last_rx_seq;           // of the last stream packet
  std::uint32_t current_tx__packet;    // sequence number of the next request = requests sent
  std::uint32_t batch;                 // batches completed; in a command run and a partner's stream, the batch number
  std::int64_t last_rx_time;           // ticks; arrival of the last stream packet, 0 = none yet
  std::int64_t last_tx_time;           // ticks; the last pacing decision that released packets
  std::int64_t next_tx_time;           // ticks; when the next release is due, by the schedule
  std::int64_t step_time;              // ticks; the clock behind the last system call, 0 = to be read (time_of_step)
  std::int64_t pacing_remainder_usec;  // elapsed time not yet turned into packets
  packet_slot* packet_table;           // owned by the test loop
  std::uint32_t packet_table_size;     // slots
  int data_socket;                     // -1 = closed, or a TCP monitor without a connection
  int listen_socket;                   // of a TCP monitor; 0 = none
  std::uint32_t transmit_length;       // bytes handed to the socket per test packet
  std::uint32_t payload_length;        // of these, data bytes
  std::uint32_t stop_requested;        // flag: the duration has elapsed
  std::uint32_t connection_is_gone;    // flag: a commander's TCP connection has ended, and the test with it
  std::uint32_t segmentation_refused;  // flag: the kernel does not cut our datagrams, so they go out one by one
  std::uint32_t refusal_reported;      // flag: the line of a refused packet was printed
  std::uint32_t stamps_sends;          // flag: the kernel stamps what is sent (net/kernel_stamps.h)
  std::uint32_t reads_can_wait;        // flag: a read may wait for a datagram (net/receive_datagram.h)
  std::uint32_t stamped_from;          // sequence number of the packet whose stamp has number 0
};

struct test_stats {
  std::int64_t start_time;            // ticks
  std::int64_t end_time;              // ticks
  std::int64_t latency_min;           // usec; of round trips, in a stream of the gaps between arrivals
  std::int64_t latency_max;           // usec
  std::int64_t latency_sum;           // usec
  std::uint64_t tx_packets;           // packets and commands sent
  std::uint64_t rx_packets;           // responses and stream packets received; in command mode of this batch
  std::uint64_t lost_packets;         // timed out, overtaken, skipped; in command mode lost in good batches
  std::uint64_t lost_in_bad_samples;  // command mode: lost in bad batches
  std::uint64_t late_arrivals;        // stream packets more than timeout_usec after the one before
  std::uint64_t late_responses;       // echo responses for a request no longer outstanding
  double buffer_consumption_usec;     // spread of this batch's arrivals against their schedule
  std::int32_t batch_first_seq;       // first sequence number of this batch; -1 = none
  std::int32_t batch_last_seq;        // last sequence number of this batch; -1 = none
  std::uint32_t bad_samples;          // batches whose first or last packet did not arrive
};

// What reading one frame came to.
enum frame_result : int {
  frame_failed = -1,     // the wait failed, a datagram was empty; on TCP the position in the stream is lost
  frame_none = 0,        // nothing came in time, or what came does not count
  frame_counted = 1,     // it settled a request or counted as a packet of a stream
  frame_ends_batch = 2,  // it was the last packet of a batch
};

// The run of this process, for whoever reports at its end. Set by app/program just before the test starts.
extern run_state* current_run_state;

// The slot of a sequence number. The table is there (it lives from the start to the end of run_test).
inline packet_slot* slot_of(const run_state* run, std::uint32_t sequence) {
  return &run->packet_table[sequence & (run->packet_table_size - 1)];
}

// The request that awaits the answer with this sequence number, of which an ICMP header carries the low 16 bits alone.
// nullptr: none does.
inline packet_slot* open_request(const run_state* run, std::uint32_t sequence) {
  packet_slot* slot = slot_of(run, sequence);
  const bool is_this = (slot->sequence - sequence) % packet_table_slots == 0;
  return slot->outstanding != 0 && is_this ? slot : nullptr;
}

// The time of this step of the test, in ticks. The clock is read at most once behind a system call of the run: every
// such call sets run->step_time, to a reading behind it or to 0.
[[nodiscard]] std::int64_t time_of_step(run_state* run);

// Records packet `sequence` in its slot as sent to the current host at `tx_time` (ticks). Returns the slot.
packet_slot* arm_slot(const test_settings* settings, const run_state* run, std::uint32_t sequence,
                      std::int64_t tx_time);

// Settles a request: answered by `responder`, or lost when that is 0. `time` is in ticks.
inline void settle_slot(packet_slot* slot, std::uint8_t response_type, std::uint32_t responder, std::int64_t time) {
  slot->outstanding = 0;
  slot->response_type = response_type;
  slot->responder = responder;
  slot->rx_time = time;
}

// Settles an answered request. It was sent when the kernel's stamp says, unless that follows the answer.
void settle_answered(packet_slot* slot, std::uint8_t response_type, std::uint32_t responder, std::int64_t time);

// Adds a round trip, or the gap between two stream packets, in usec to the smallest, largest and sum.
inline void add_latency(test_stats* stats, std::int64_t latency_usec) {
  if (stats->latency_max == 0) {
    stats->latency_min = latency_usec;
    stats->latency_max = latency_usec;
  }
  if (latency_usec > stats->latency_max) stats->latency_max = latency_usec;
  if (latency_usec < stats->latency_min) stats->latency_min = latency_usec;
  stats->latency_sum += latency_usec;
}

// A 64-bit counter as the signed 32-bit number that "%d" prints.
constexpr std::int32_t low32(std::uint64_t counter) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(counter));
}

// The same for what a difference may have brought below 0, of which nothing is left to count.
constexpr std::int32_t count_as_int(std::int64_t count) {
  return count < 0 ? 0 : low32(static_cast<std::uint64_t>(count));
}
