# Echo mode over ICMP: what each kind of answer, or its absence, does to the lines, the counts and the pacing; the
# sweep, traceroute, and sending without listening.
import os, re, signal, struct, time

import pytest
from lab import (
    ECHO_REPLY, HOST, LOOPBACK, REMOTE_PORT, TunPeer, error, eventually, icmp, message, received, reply, shape,
    summary, timed_out, unexpected)

SURE, BAD_CHECKSUM = "-T9000000", "Error: Received ICMP message with bad ICMP checksum\n"
ALL, TTL, UNREACHABLE = "".join(map(received, range(3))) + summary(3, 3), "TTL Exceeded", "Destination Unreachable"


@pytest.mark.parametrize("options, kind, length, lines", [
    ("-l0", 8, 8, ALL), ("-l29", 8, 9, ALL), ("-l1499", 8, 1479, ALL), ("-q0x20", 8, 8, ALL),
    ("-i", 8, 8, summary(3, 0)), ("-U -i -l1500", 0, 1480, summary(3, 0)),
    ("-U -T20000", 0, 8, "".join(map(timed_out, range(3))) + summary(3, 0))])
def test_output_and_frames(lab, options, kind, length, lines):
    run, peer = lab.ping({}, HOST, "-e3", "-d5000", SURE, *options.split())
    assert (shape(run.body), run.err, run.status) == (lines, f"Destination IP = {HOST}\nCleanup exit\n", 0)
    eventually(lambda: len(peer.packets) == 3, "the requests")
    for sequence, packet in enumerate(peer.packets):
        assert (packet.destination, packet.tos) == (HOST, 0x20 if options == "-q0x20" else 0)
        ids = struct.pack("=H", run.pid & 0xFFFF) + struct.pack(">H", sequence)
        assert packet.message == icmp(kind, ids + bytes(length - 8))


# A window of one: a request goes out when the one before is settled, so what comes first is late for that one.
def test_odd_answers(lab):
    run, _ = lab.ping({
        0: [reply(length=7)],
        1: [reply(shift=-1), reply(spoil=1), reply(identifier=0), reply(options=b"\x01" * 40)],
        2: [reply(source="10.9.8.7")],
        3: [reply(shift=-1), reply(length=8)],
    }, HOST, "-l40", "-d5000", "-T1000000", "-e4")
    lines = timed_out(0) + unexpected(0) + received(1) + received(2, "10.9.8.7") + unexpected(2) + received(3)
    assert shape(run.body) == lines + summary(4, 3)
    assert float(re.search(r"TIMEOUT in +([\d.]+)s", run.body)[1]) >= 1.005
    assert run.err == f"Destination IP = {HOST}\n{BAD_CHECKSUM}Cleanup exit\n"


def test_icmp_of_every_type_and_errors_of_every_length(lab):
    run, _ = lab.ping({
        0: [error(kind) for kind in range(1, 256) if kind not in (3, 11)] + [reply()],
        1: [error(kind, length=length) for kind in (3, 11) for length in range(4, 36)] + [reply()],
        2: [error(11, patch=patch) for patch in ({9: 17}, {0: 0x46}, {24: 1, 25: 1}, {26: 9})] + [reply()],
        3: [error(11, length=36)], 4: [error(3, length=36, options=b"\x01" * 4)],
        5: [error(11, source="10.9.1.1"), error(11)],  # the second finds nothing outstanding: no word
    }, HOST, "-e7", "-l60", "-d1000", SURE)
    hops = received(3, "10.9.0.99", TTL) + received(4, "10.9.0.99", UNREACHABLE) + received(5, "10.9.1.1", TTL)
    assert shape(run.body) == "".join(map(received, range(3))) + hops + received(6) + summary(7, 7)
    invalid = [kind for kind in range(256) if kind in (1, 2, 6, 7) or kind > 18]
    assert run.err.count("Error: Inavlid ICMP type received\n") == len(invalid) == run.err.count("\n") - 2


def test_pace_and_duration(lab):
    for options, least, most in (("-e4 -r20", 0.139, 9), ("-e66000 -d0 -a50 -l9000", 0, 60), ("-S1 -d5000", 1, 15),
                                 ("--blast -S1", 1, 15)):
        run = lab.run(LOOPBACK, "-s", *options.split(), SURE)  # without -S the last two would go on for minutes
        seconds, sent, answered = re.search(r"In +([\d.]+)s, (\d+) tx pkts, (\d+) rx pkts", run.body).groups()
        assert least <= float(seconds) < most and int(answered) == (0 if "--blast" in options else int(sent))


def test_sweep(lab):
    hosts = ["10.9.0.254", "10.9.0.255", "10.9.1.0", "10.9.1.1"]

    def only_even(request):
        return [reply()(request)] if request.destination in hosts[::2] else []

    run, peer = lab.ping(only_even, hosts[0], hosts[-1], "-e2", "-d5000", "-T200000")
    assert [packet.destination for packet in peer.packets] == [host for host in hosts for _ in range(2)]
    lines = [(received, timed_out)[i // 2 % 2](i, hosts[i // 2]) for i in range(8)]
    assert shape(run.body) == "".join(lines) + summary(8, 4)
    assert run.err == f"Start IP= {hosts[0]}  End IP= {hosts[-1]}\nCleanup exit\n"
    run, peer = lab.ping(only_even, "10.9.0.100", "10.9.1.99", "--discover")
    assert shape(run.body) == ("Engaging options: -m -e1 -d0 -a500 -T1000000 -s\n" + received(154, hosts[0])
                               + received(156, hosts[2]) + summary(256, 2))


def test_three_routers_and_what_they_do_not_know(lab):
    target, first, *_ = "10.9.3.2", *lab.chain(3)
    run = lab.run("10.77.0.1", "-e2", "-d1000", SURE, at=first)
    assert shape(run.body) == "".join(received(i, "10.9.0.2", UNREACHABLE) for i in (0, 1)) + summary(2, 2)
    hops = "".join(received(i, f"10.9.{i}.2", TTL) for i in range(3))
    for options, preset, count in (("-t -e6 -d1000", "", 6), ("--trace", "Engaging options: -e20 -t -d0\n", 20)):
        run = lab.run(target, *options.split(), SURE, at=first)
        answers = "".join(received(i, target) for i in range(3, count))
        assert shape(run.body) == preset + hops + answers + summary(count, count)
    _, peer = lab.ping({}, HOST, "-t", "-e130", "-d0", "-s", SURE)
    assert [packet.ttl for packet in peer.packets] == [*range(1, 128), 127, 127, 127]


# The kernel's stamps tell when an answer came, however long the program does not look.
@pytest.mark.parametrize("options", [[HOST], ["-u", LOOPBACK]])
def test_a_program_that_sleeps_measures_right(lab, options):
    peer, began = lab.own(TunPeer(lab.namespace(), {0: []})), time.monotonic()
    monitor = lab.socket(peer.namespace, REMOTE_PORT)
    run = lab.start(*options, "-e1", SURE, at=peer.namespace)
    run.wait_for("Destination")
    run.wait_until("S")
    run.signal(signal.SIGSTOP)
    run.wait_until("T")
    if "-u" in options:
        request, sender = monitor.recvfrom(1000)
        monitor.sendto(message(ECHO_REPLY, process_id=request[4:8]), sender)
    else:
        eventually(lambda: peer.packets, "the request")
        os.write(peer.tun, reply()(peer.packets[0])[1])
    longest = time.monotonic() - began
    time.sleep(0.5)
    run.signal(signal.SIGCONT)
    assert float(re.search(r"Received  Echo Reply  in +([\d.]+)s", run.finish().body)[1]) <= longest
