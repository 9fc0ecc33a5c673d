// One run on the workbench: its records, its packet table, and both ends of its connection.
#pragma once

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "app/options.h"
#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "engine/loop.h"
#include "net/icmp_handler.h"
#include "net/kernel_stamps.h"
#include "net/message_handler.h"
#include "net/receive_datagram.h"
#include "net/send_packet.h"
#include "report/results_files.h"
#include "report/sample_list.h"
#include "support/frames.h"
#include "support/simulated_world.h"
#include "wire/remote_command.h"

inline std::vector<std::string> words_of(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

// What main gets of its arguments.
inline std::vector<char*> pointers_to(std::vector<std::string>* texts) {
  std::vector<char*> pointers;
  for (std::string& text : *texts) pointers.push_back(text.data());
  return pointers;
}

// The arguments stand between blanks; their texts live until the next call.
inline int parse(const std::string& arguments, test_settings* settings) {
  static std::vector<std::string> texts;
  texts = words_of("vorn " + arguments);
  return parse_command_line(static_cast<int>(texts.size()), pointers_to(&texts).data(), settings);
}

// All samples of a list, as a plain one.
inline std::vector<std::uint32_t> samples_of(const sample_list& samples) {
  std::vector<std::uint32_t> all;
  for (std::uint32_t i = 0; i < samples.block_count; ++i)
    all.insert(all.end(), samples.blocks[i].samples, samples.blocks[i].samples + samples.blocks[i].count);
  return all;
}

inline void empty(sample_list* samples) {
  for (std::uint32_t i = 0; i < samples->block_count; ++i) std::free(samples->blocks[i].samples);
  std::free(samples->blocks);
  const std::uint32_t ascending = samples->ascending;
  *samples = {};
  samples->ascending = ascending;
}

// The world and what outlives a run in the code.
inline void begin_anew() {
  if (world.peer >= 0) close(world.peer);
  const std::int64_t later = world.now;
  world = {};
  world.now = later;
  (void)read_both_clocks();  // the date of the world before may have been set
  world.now += 1000001;      // until when no stamp is trusted then
  discard_read_ahead();
  empty(&bandwidth_samples);
  empty(&buffer_samples);
}

// The one table of all benches. Its pages are dropped, not cleared: that is 2.6 MB, of which a run touches a few.
inline packet_slot* blank_table() {
  constexpr std::size_t page_bytes = 65536;  // the largest of all processors
  constexpr std::size_t table_bytes = packet_table_slots * sizeof(packet_slot);
  static_assert(table_bytes % page_bytes == 0);
  static auto* table = static_cast<packet_slot*>(std::aligned_alloc(page_bytes, table_bytes));
  if (table == nullptr || madvise(table, table_bytes, MADV_DONTNEED) != 0) std::abort();
  return table;
}

struct workbench {
  // A run to 10.0.0.1, unless `arguments` name another host. The world and all that is process-wide begin anew.
  explicit workbench(const std::string& arguments = "") {
    begin_anew();
    const char* host = arguments.find("10.") == std::string::npos ? " 10.0.0.1" : "";
    if (parse(arguments + host, &settings) != 0) std::abort();
    settings.process_id = 70000;  // wider than an ICMP identifier
    settings.total_requests = settings.echo_count;
    run.packet_table = table;
    run.packet_table_size = packet_table_slots;
    run.data_socket = -1;
    stats.batch_first_seq = stats.batch_last_seq = -1;
    stats.start_time = clock_now();
  }
  ~workbench() {
    if (run.data_socket >= 0) close(run.data_socket);
  }
  workbench(const workbench&) = delete;

  packet_slot& slot(std::int64_t sequence) {
    return table[sequence % packet_table_slots];
  }
  // The request left `age` usec ago and waits for its answer.
  void request(std::int64_t number, std::int64_t age = 0) {
    const auto sequence = static_cast<std::uint32_t>(number);
    slot(number) = {};
    slot(number).outstanding = 1;
    slot(number).sequence = sequence;
    slot(number).destination = settings.start_host;
    slot(number).tx_time = world.now - age;
    run.current_tx__packet = sequence + 1;
    run.next_tx_time = slot(number).tx_time + settings.delay_usec;
  }
  // Its answer came `age` usec ago.
  void answer(std::int64_t sequence, std::int64_t age = 0) {
    slot(sequence).outstanding = 0;
    slot(sequence).responder = settings.start_host;
    slot(sequence).rx_time = world.now - age;
  }
  // Each handles a frame that came now; the kernel's stamp of it is arrival.stamp.
  frame_result receive_icmp(const byte_vector& frame) {
    arrival.reading = world.now;
    return handle_icmp_response(frame.data(), static_cast<int>(frame.size()), &arrival, &settings, &stats, &run);
  }
  frame_result receive_message(byte_vector bytes) {
    arrival.reading = world.now;
    return handle_test_message(inet_addr("10.0.0.7"), htons(9999), bytes.data(), static_cast<int>(bytes.size()),
                               &arrival, &settings, &stats, &run);
  }
  // The whole test; a commander's command is blank.
  void run_to_end() {
    const command_body command = {};
    run_test(&settings, &stats, &run, &command);
  }
  // Joins run.data_socket to world.peer, by a stream or by datagrams.
  void connect(int type) {
    run.data_socket = world.open(type);
  }

  test_settings settings = {};
  test_stats stats = {};
  run_state run = {};
  frame_arrival arrival = {};
  packet_slot* table = blank_table();
};
