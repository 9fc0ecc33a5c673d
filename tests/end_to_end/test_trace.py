# Traceroute: over real routers, over a scripted path with a silent hop, and the time-to-live of each request.
from lab import *


def test_three_routers_and_what_they_do_not_know(lab):
    target, first, *_ = "10.9.3.2", *lab.chain(3)
    hops = "".join(received(i, f"10.9.{i}.2", "TTL Exceeded") for i in range(3))
    for options, preset, count in (("-t -e6 -d1000", "", 6), ("--trace", "Engaging options: -e20 -t -d0\n", 20)):
        run = lab.run(target, *options.split(), "-T9000000", at=first)
        answers = "".join(received(i, target) for i in range(3, count))
        assert shape(run.body) == preset + hops + answers + summary(count, count)
        assert (run.err, run.status) == (f"Destination IP = {target}\nCleanup exit\n", 0)
    run = lab.run("10.77.0.1", "-t", "-e2", "-d1000", "-T9000000", at=lab.chain(1)[0])
    hops = "".join(received(i, "10.9.0.2", "Destination Unreachable") for i in (0, 1))
    assert shape(run.body) == hops + summary(2, 2)


def test_a_silent_hop_times_out_and_the_path_goes_on(lab):
    def path(request):  # hop 2 drops, hop 4 is the target
        hop = {1: [error(11, source="10.9.5.1")], 2: [], 3: [error(11, source="10.9.5.3")]}
        return [answer(request) for answer in hop.get(request.ttl, [reply()])]

    run, _ = lab.ping(path, HOST, "-t", "-e4", "-d1000", "-T400000")
    assert shape(run.body) == (received(0, "10.9.5.1", "TTL Exceeded") + timed_out(1)
                               + received(2, "10.9.5.3", "TTL Exceeded") + received(3) + summary(4, 3))


def test_time_to_live_rises_to_127_and_stays(lab):
    _, peer = lab.ping({}, HOST, "-t", "-e130", "-d0", "-s", "-T9000000")
    assert [packet.ttl for packet in peer.packets] == [*range(1, 128), 127, 127, 127]
