// What a UDP datagram or TCP message of test traffic means: answer it, match it, track it, or execute it.
#pragma once

#include <cstdint>

#include "base/run_records.h"

struct frame_arrival;
struct test_settings;

// Handles one test message of `length` received bytes (negative: the read failed), of which as many as an
// operation_message has, or all, are at `message`, from `source_address` and `source_port`, both in network byte order;
// on TCP the current host and 0. It came at `arrival`. Echo Requests are
// answered. In echo mode an answer settles its slot; in partner mode every Echo Request, Echo Reply and Data message is
// tracked as part of a stream, and the sender's identifier and batch are adopted. An "Operation" is executed: a whole
// test that streams packets back runs inside this call. Returns frame_ends_batch for the stream packet with sequence
// remote_echoes - 1, frame_counted for any other stream packet, frame_none for everything else.
[[nodiscard]] frame_result handle_test_message(std::uint32_t source_address, std::uint16_t source_port,
                                               std::uint8_t* message, int length, const frame_arrival* arrival,
                                               test_settings* settings, test_stats* stats, run_state* run);
