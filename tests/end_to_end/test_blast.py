"""Sending without listening, endless presets, and signals that must not disturb a run."""
import re
import signal
import time

import pytest

from lab import HOST, LOOPBACK, received, shape, summary, timed_out


def test_ignoring_responses_reads_nothing(lab):
    run, peer = lab.ping({}, HOST, "-i", "-e5", "-d5000")
    assert shape(run.body) == summary(5, 0) and [packet.type for packet in peer.packets] == [8] * 5
    assert (run.err, run.status) == (f"Destination IP = {HOST}\nCleanup exit\n", 0)


def test_unidirectional_sends_replies_and_waits_in_vain(lab):
    run, peer = lab.ping({}, HOST, "-U", "-e2", "-d5000", "-T20000")
    assert shape(run.body) == timed_out(0) + timed_out(1) + summary(2, 0)
    assert [(packet.type, packet.sequence) for packet in peer.packets] == [(0, 0), (0, 1)]
    run, peer = lab.ping({}, HOST, "-U", "-i", "-e3", "-d0", "-l1500")
    assert [(packet.type, len(packet.message)) for packet in peer.packets] == [(0, 1480)] * 3


def test_blast_ends_on_time(lab):
    begin = time.monotonic()
    run = lab.run(LOOPBACK, "--blast", "-S1")
    assert time.monotonic() - begin < 15  # a release that does not watch the clock outlasts -S by tens of seconds
    assert run.body.startswith("Engaging options: -U -i -e -l1500 -d0\nIn ")
    seconds, sent, answered = re.search(r"In +([\d.]+)s, (\d+) tx pkts, (\d+) rx pkts", run.body).groups()
    assert float(seconds) >= 1 and int(sent) > 1000 and int(answered) == 0


@pytest.mark.parametrize("preset, line, length", [
    ("--lots", "-e -a10 -l1500 -d0 -A50 -s -T200000", 1480),
    ("--voice", "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m", 230),
])
def test_endless_presets_take_a_count_from_a_later_option(lab, preset, line, length):
    run, peer = lab.ping({}, HOST, preset, "-e4", "-T5000000")
    assert shape(run.body) == f"Engaging options: {line}\n" + summary(4, 4)
    assert [len(packet.message) for packet in peer.packets] == [length] * 4


def test_harmless_signals_change_nothing(lab):
    for options, lines in ((["-e3"], "".join(map(received, range(3))) + summary(3, 3)), (["-e3", "-i"], summary(3, 0))):
        peer = lab.peer({})
        run = lab.start(HOST, *options, "-d200000", "-T5000000", at=peer.namespace)
        peer.wait_for(1)
        while run.process.poll() is None:
            for number in (signal.SIGWINCH, signal.SIGSTOP, signal.SIGCONT, signal.SIGURG):
                run.signal(number)
            time.sleep(0.002)
        run.finish()
        assert (shape(run.body), run.err, run.status) == (lines, f"Destination IP = {HOST}\nCleanup exit\n", 0)
