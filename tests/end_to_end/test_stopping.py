# Stop signals in each mode, the progress line of SIGQUIT, and a clock that is set while a run goes on.
from lab import *

STOPS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
AT_ONCE = 10  # seconds; every run here would otherwise go on for a minute or more
SLOW = "-d90000000"


def stop(run, number):
    run.process.send_signal(number)
    run.finish(AT_ONCE)
    assert run.status == -number and run.err.endswith("Cleanup exit\n") and run.err.count("Cleanup exit") == 1


# The options, the answers, the request after which the signal comes, the lines of the run.
@pytest.mark.parametrize("options, script, count, lines", [
    pytest.param(["-d1000", "-T9000000"], {1: [reply(0.3)]}, 2, received(0) + received(1) + summary(2, 2),
                 id="one to come"),
    pytest.param(["-d1000", "-T300000"], {0: []}, 1, timed_out(0) + summary(1, 0), id="one lost"),
    pytest.param(["-d1000", "-a3", "-T9000000"], {i: [reply(0.3)] for i in range(3)}, 3,
                 "".join(map(received, range(3))) + summary(3, 3), id="three to come"),
    pytest.param([SLOW, "-s"], {}, 1, summary(1, 1), id="nothing outstanding"),
    pytest.param([SLOW, "-i"], {}, 1, summary(1, 0), id="responses ignored"),
    pytest.param([SLOW, "-s", "10.9.0.9"], {}, 1, summary(1, 1), id="in a sweep"),
])
def test_echo_mode_ends_properly(lab, options, script, count, lines):
    for number in STOPS:
        run, peer = lab.pinging(script, count, HOST, "-e9999", *options)
        time.sleep(0.05)  # the answers that come at once are in
        stop(run, number)
        assert shape(run.body) == lines and len(peer.packets) == count


def test_second_signal_ends_at_once_and_ignored_ones_stay_ignored(lab):
    run, _ = lab.pinging({0: []}, 1, HOST, "-T90000000")
    run.process.send_signal(signal.SIGTERM)
    time.sleep(0.2)
    assert run.process.poll() is None  # the request is still outstanding
    run.process.send_signal(signal.SIGINT)
    assert run.finish(AT_ONCE).status in (-signal.SIGINT, -signal.SIGTERM)
    for number in STOPS:
        ignoring = ["env", f"--ignore-signal={number.name[3:]}"]
        run, _ = lab.pinging({}, 1, HOST, "-d100000", "-T9000000", before=ignoring)
        run.process.send_signal(number)
        assert (shape(run.finish().body), run.status) == ("".join(map(received, range(3))) + summary(3, 3), 0)


def test_commander_writes_its_rows(lab, tmp_path):
    for number, silent in zip(STOPS + STOPS, [False] * 3 + [True] * 3):
        here, name = lab.namespace(), f"{number.name}-{silent}.csv"
        monitor = lab.socket(here, REMOTE_PORT) if silent else lab.monitor(at=here)
        run = lab.start("--client", LOOPBACK, "-e", "-E10", f"-f{name}", at=here, cwd=tmp_path)
        monitor.recv(1000) if silent else run.wait_for("    3:  Pkts")
        stop(run, number)
        assert re.search(r"\nTest complete! Total test time:  *\d+\.\d{3}s\n$", run.body)
        rows = [(tmp_path / file).read_text().splitlines() for file in (name, "HISTOGRAM_" + name)]
        assert [len(table) for table in rows] == [2, 2] and rows[0][1].split(",")[6] == str(run.body.count("Pkts:"))


@pytest.mark.parametrize("state", ["idle", "streaming", "accepting", "half a message", "streaming over TCP"])
def test_monitor_ends_at_once(lab, state):
    carrier = "-u" if state in ("idle", "streaming") else "-p"
    body = command(1000, delay_usec=90000000, udp=carrier == "-u", tcp=carrier == "-p")
    for number in STOPS:
        here = lab.namespace()
        run = lab.monitor(carrier, at=here)
        if state == "half a message":
            lab.socket(here, kind=socket.SOCK_STREAM, to=LOOPBACK).sendall(message(ECHO_REQUEST)[:10])
            time.sleep(0.05)
        elif "streaming" in state:
            client = lab.socket(here, LOCAL_PORT, *([socket.SOCK_STREAM, LOOPBACK] if carrier == "-p" else []))
            client.sendto(message(OPERATION, 0, 0, b"slow", body), (LOOPBACK, REMOTE_PORT))
            assert client.recv(20)[:4] == struct.pack(">I", DATA)
        stop(run, number)
        assert (run.body, run.err) == ("Engaging options: -M -u -s\n", "Destination IP = 0.0.0.0\nCleanup exit\n")


def test_progress_line(lab):
    run, _ = lab.pinging({1: [], 3: [reply(1.0)]}, 4, HOST, "-e4", "-d1000", "-T3000000", "-m")
    for _ in range(2):
        run.process.send_signal(signal.SIGQUIT)
        time.sleep(0.05)
    first, *progress, last = run.finish().err.splitlines()
    assert (first, last, run.status, len(progress)) == (f"Destination IP = {HOST}", "Cleanup exit", 0, 2), run.err
    assert all([float(figure) for figure in re.findall(r"\d+(?:\.\d+)?", line)] == [4, 2, 1, 25] for line in progress)
    assert shape(run.body) == received(0) + received(2) + received(3) + summary(4, 3)

    here = lab.namespace()
    lab.monitor(at=here)
    run = lab.start("--client", LOOPBACK, "-e3", "-E10", "-d20000", "-T9000000", at=here)
    run.wait_for("    1:  Pkts")
    run.process.send_signal(signal.SIGQUIT)
    assert len(run.finish().err.splitlines()) == 3 and run.body.count(" 10/10 ") == 3 and run.status == 0


# The clock is off by an hour while the file is there.
CLOCK = r"""
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
int gettimeofday(struct timeval *restrict now, void *restrict zone) {
  long result = syscall(SYS_gettimeofday, now, zone);
  if (access(getenv("CLOCK_FILE"), F_OK) == 0) now->tv_sec += atol(getenv("CLOCK_OFFSET"));
  return (int)result;
}
"""


@pytest.mark.parametrize("offset", [-3600, 3600])
def test_clock_set_by_an_hour(lab, tmp_path, offset):
    library, clock = tmp_path / "clock.so", tmp_path / "set"
    compiler = ["gcc", "-xc", "-shared", "-fPIC", "-D_GNU_SOURCE", "-o", library, "-"]
    subprocess.run(compiler, input=CLOCK.encode(), check=True)
    with_clock = {"env": {"LD_PRELOAD": str(library), "CLOCK_FILE": str(clock), "CLOCK_OFFSET": str(offset)}}
    for script in ({}, {3: []}):
        run, peer = lab.pinging(script, 4, HOST, "-e8", "-d50000", "-T300000", **with_clock)
        clock.touch()
        eventually(lambda: len(peer.packets) >= 6, "requests after the clock was set")
        clock.unlink()
        run.finish(AT_ONCE)
        assert run.status == 0 and run.body.count("Received") + run.body.count("TIMEOUT") == 8, run.body
        assert "-" not in run.body and len(peer.packets) == 8, run.body

    if offset > 0:
        run, _ = lab.pinging({}, 2, HOST, "-S1800", **with_clock)
        clock.touch()
        assert run.finish(AT_ONCE).status == 0
