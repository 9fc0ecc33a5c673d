// When a packet left: the stamp that the kernel takes as it hands the packet to the driver (SO_TIMESTAMPING in
// socket(7), timestamping.rst in the kernel's documentation). Our own reading before the call is early by the way
// through the kernel, and on a busy processor by all the time that it is taken away from us.
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;

// Asks for stamps where they are worth a call for each packet: in an echo test over datagrams that reads and sends at
// most 5000 packets a second. Sets run->stamps_sends where the kernel agreed; such a run must take its stamps, since
// unread ones fill the receive buffer. Elsewhere the readings serve.
void ask_for_send_stamps(const test_settings* settings, run_state* run);

// Takes the stamps that are there, without waiting, and notes each in the slot of its packet (packet_slot's
// stamp_lag_usec). Nothing in a run that asked for none. To be called behind every send and behind every read, before
// what that brought is settled: a device that queues stamps late, and a stamp makes the socket readable to select(2).
void take_send_stamps(run_state* run);

// Has the stamps counted anew, so that number 0 is that of packet `sequence`. To be called after a send that failed:
// kernels differ in whether it takes a number.
void renumber_send_stamps(std::uint32_t sequence, run_state* run);
