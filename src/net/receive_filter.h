// What the kernel need not hand to a run: classic BPF filters on its socket (SO_ATTACH_FILTER in socket(7)).
#pragma once

struct run_state;
struct test_settings;

// Attaches what fits the run to run->data_socket; settings->process_id is set. A datagram run that never reads takes
// nothing, so that nothing is queued, and counted as lost, for want of a reader. An echo test over ICMP leaves out its
// own requests, which a raw socket reads as well when they pass this host (raw(7)); all else comes through, broken
// frames too. A monitor that reads and a command run, whose socket is the monitor's, are left alone. A kernel that
// refuses costs speed, not truth.
void leave_out_own_traffic(const test_settings* settings, const run_state* run);
