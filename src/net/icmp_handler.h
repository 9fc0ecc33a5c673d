// What a frame from the raw ICMP socket means for the test.
#pragma once

#include <cstdint>

#include "base/run_records.h"

struct frame_arrival;
struct test_settings;

// Handles one IPv4 datagram of `length` bytes as a raw ICMP socket delivers it; a negative length is a failed read.
// It came at `arrival`.
// Echo mode: settles the slot that an echo reply, or an ICMP error quoting our request (RFC 792), answers. Monitor:
// locks settings->process_id on to the first sender of echo replies, then measures that stream. Returns
// frame_counted when the frame settled a slot or counted as a stream packet, frame_none when it was ignored or refused.
[[nodiscard]] frame_result handle_icmp_response(const std::uint8_t* datagram, int length, const frame_arrival* arrival,
                                                test_settings* settings, test_stats* stats, run_state* run);
