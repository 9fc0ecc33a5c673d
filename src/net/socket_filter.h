// What the kernel need not hand to a run: filters on its socket, by ICMP type (ICMP_FILTER, raw(7)) or for everything
// (SO_ATTACH_FILTER, socket(7)).
#pragma once

struct run_state;
struct test_settings;

// Sets what fits the run on run->data_socket. A datagram run that never reads takes nothing, so that nothing is queued,
// and counted as lost, for want of a reader. An echo test over ICMP leaves out echo requests, its own that pass this
// host among them: none is an answer. All else comes through, broken frames too. A monitor that reads and a command
// run, whose socket is the monitor's, are left alone. A kernel that refuses costs speed, not truth.
void leave_out_own_traffic(const test_settings* settings, const run_state* run);
