# Sending without listening, endless presets, and signals that must not disturb a run.
from lab import *


def test_ignoring_responses_and_unidirectional(lab):
    for options, kind, length, lines in (
        (["-i", "-e5", "-d5000"], 8, 8, summary(5, 0)),
        (["-U", "-e2", "-d5000", "-T20000"], 0, 8, timed_out(0) + timed_out(1) + summary(2, 0)),
        (["-U", "-i", "-e3", "-d0", "-l1500"], 0, 1480, summary(3, 0)),
    ):
        run, peer = lab.ping({}, HOST, *options)
        assert (shape(run.body), run.err, run.status) == (lines, f"Destination IP = {HOST}\nCleanup exit\n", 0)
        assert {(packet.type, len(packet.message)) for packet in peer.packets} == {(kind, length)}


def test_duration_ends_a_blast_and_a_ping(lab):
    for option, output in (("--blast", "Engaging options: -U -i -e -l1500 -d0\nIn "), ("-d5000", received(0, LOOPBACK))):
        begin = time.monotonic()
        run = lab.run(LOOPBACK, option, "-S1")
        assert time.monotonic() - begin < 15  # a release that does not watch the clock outlasts -S by tens of seconds
        seconds, sent, answered = re.search(r"In +([\d.]+)s, (\d+) tx pkts, (\d+) rx pkts", run.body).groups()
        assert shape(run.body).startswith(output) and float(seconds) >= 1
        assert (int(sent) > 1000 and int(answered) == 0) or option != "--blast"


def test_harmless_signals_change_nothing(lab):
    for options, lines in (([], "".join(map(received, range(3))) + summary(3, 3)), (["-i"], summary(3, 0))):
        run, _ = lab.pinging({}, 1, HOST, *options, "-d200000", "-T9000000")
        while run.process.poll() is None:
            for number in (signal.SIGWINCH, signal.SIGSTOP, signal.SIGCONT, signal.SIGURG):
                run.process.send_signal(number)
            time.sleep(0.002)
        run.finish()
        assert (shape(run.body), run.err, run.status) == (lines, f"Destination IP = {HOST}\nCleanup exit\n", 0)
