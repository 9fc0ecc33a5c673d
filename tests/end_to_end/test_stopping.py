"""Stop signals in each mode, the progress line of SIGQUIT, and a clock that is set while a run goes on."""
import re
import signal
import socket
import struct
import subprocess
import time

import pytest

from lab import (DATA, ECHO_REQUEST, HOST, LOCAL_PORT, LOOPBACK, OPERATION, REMOTE_PORT, command, message, received,
                 reply, shape, summary, timed_out)

STOPS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
AT_ONCE = 10  # seconds; every run here would otherwise go on for a minute or more


def stop(run, number):
    run.signal(number)
    run.finish(AT_ONCE)
    assert run.status == -number and run.err.endswith("Cleanup exit\n") and run.err.count("Cleanup exit") == 1


# A row: options, the script of the peer, the request after which the signal comes, the lines of the run.
ECHO_STOPS = {
    "the answer is on its way": (["-d1000", "-T9000000"], {1: [reply(0.3)]}, 2, received(0) + received(1) + summary(2, 2)),
    "the answer is lost": (["-d1000", "-T300000"], {0: []}, 1, timed_out(0) + summary(1, 0, True)),
    "a window of three": (["-d1000", "-a3", "-T9000000"], {i: [reply(0.3)] for i in range(3)}, 3,
                          "".join(map(received, range(3))) + summary(3, 3)),
    "nothing is outstanding": (["-d90000000", "-s"], {}, 1, summary(1, 1, True)),
    "responses are ignored": (["-d90000000", "-i"], {}, 1, summary(1, 0, True)),
    "in a sweep": (["-d90000000", "-s", "10.9.0.9"], {}, 1, summary(1, 1, True)),
}


@pytest.mark.parametrize("row", ECHO_STOPS)
def test_echo_mode_ends_properly(lab, row):
    options, script, count, lines = ECHO_STOPS[row]
    for number in STOPS:
        peer = lab.peer(script)
        run = lab.start(HOST, "-e9999", *options, at=peer.namespace)
        peer.wait_for(count)
        time.sleep(0.05)  # the answers that do come are in
        stop(run, number)
        assert shape(run.body) == lines and len(peer.packets) == count


def test_second_signal_ends_at_once_and_ignored_ones_stay_ignored(lab):
    peer = lab.peer({0: []})
    run = lab.start(HOST, "-T90000000", at=peer.namespace)
    peer.wait_for(1)
    run.signal(signal.SIGTERM)
    time.sleep(0.2)
    assert run.process.poll() is None  # the request is still outstanding
    run.signal(signal.SIGINT)
    run.finish(AT_ONCE)
    assert run.status in (-signal.SIGINT, -signal.SIGTERM)

    for number in STOPS:
        peer = lab.peer({})
        run = lab.start(HOST, "-d100000", "-T5000000", at=peer.namespace, before=["env", f"--ignore-signal={number.name[3:]}"])
        peer.wait_for(1)
        run.signal(number)
        run.finish()
        assert (shape(run.body), run.status) == ("".join(map(received, range(3))) + summary(3, 3), 0)


@pytest.mark.parametrize("scripted", [False, True], ids=["streaming", "silent monitor"])
def test_commander_writes_its_rows(lab, tmp_path, scripted):
    for number in STOPS:
        here = lab.namespace()
        silent = scripted and lab.socket(here, REMOTE_PORT)
        scripted or lab.monitor("--server", at=here)
        name = f"{number.name}.csv"
        run = lab.start("--client", LOOPBACK, "-e", "-E10", f"-f{name}", at=here, cwd=tmp_path)
        if silent:
            silent.recv(1000)
        else:
            run.wait_for("    3:  Pkts")
        stop(run, number)
        assert re.search(r"(\n|^)Test complete! Total test time:  *\d+\.\d{3}s\n$", run.body)
        rows = [(tmp_path / file).read_text().splitlines() for file in (name, "HISTOGRAM_" + name)]
        assert [len(table) for table in rows] == [2, 2]
        assert rows[0][1].split(",")[6] == str(run.body.count("Pkts:"))


@pytest.mark.parametrize("state", ["idle", "streaming", "accepting", "half a message", "streaming over TCP"])
def test_monitor_ends_at_once(lab, state):
    for number in STOPS:
        here = lab.namespace()
        carrier = "-p" if state not in ("idle", "streaming") else "-u"
        run = lab.monitor(carrier, "--server", at=here)
        slow = message(OPERATION, 0, 0, b"slow", command(1000, delay_usec=90000000, udp=carrier == "-u", tcp=carrier == "-p"))
        if state == "streaming":
            client = lab.socket(here, LOCAL_PORT)
            client.sendto(slow, (LOOPBACK, REMOTE_PORT))
            assert client.recv(100)[:4] == struct.pack(">I", DATA)
        elif state == "half a message":
            lab.connect(here).sendall(message(ECHO_REQUEST)[:10])
            time.sleep(0.05)
        elif state == "streaming over TCP":
            client = lab.connect(here)
            client.sendall(slow)
            assert client.recv(20, socket.MSG_WAITALL)[:4] == struct.pack(">I", DATA)
        stop(run, number)
        assert run.err == "Destination IP = 0.0.0.0\nCleanup exit\n"
        assert run.body == "Engaging options: -M -u -s\n"


def test_progress_line(lab):
    peer = lab.peer({1: [], 3: [reply(1.0)]})
    run = lab.start(HOST, "-e4", "-d1000", "-T3000000", "-m", at=peer.namespace)
    peer.wait_for(4)
    for _ in range(2):
        run.signal(signal.SIGQUIT)
        time.sleep(0.05)
    run.finish()
    first, *progress, last = run.err.splitlines()
    assert (first, last, run.status) == (f"Destination IP = {HOST}", "Cleanup exit", 0)
    assert len(progress) == 2, run.err
    for line in progress:
        assert [float(figure) for figure in re.findall(r"\d+(?:\.\d+)?", line)] == [4, 2, 1, 25], line
    assert shape(run.body) == received(0) + received(2) + received(3) + summary(4, 3)

    here = lab.namespace()
    lab.monitor("--server", at=here)
    run = lab.start("--client", LOOPBACK, "-e3", "-E10", "-d20000", "-T5000000", at=here)
    run.wait_for("    1:  Pkts")
    run.signal(signal.SIGQUIT)
    run.finish()
    assert len(run.err.splitlines()) == 3 and "*" not in run.body and run.body.count("10/10 ") == 3 and run.status == 0


CLOCK = r"""
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
int gettimeofday(struct timeval *restrict now, void *restrict zone) {
  long offset = 0;
  FILE *file = fopen(getenv("CLOCK_OFFSET"), "r");
  if (file && fscanf(file, "%ld", &offset) != 1) offset = 0;
  if (file) fclose(file);
  int result = (int)syscall(SYS_gettimeofday, now, zone);
  now->tv_sec += offset;
  return result;
}
"""


@pytest.mark.parametrize("offset", [-3600, 3600])
def test_clock_set_by_an_hour(lab, tmp_path, offset):
    (tmp_path / "clock.c").write_text(CLOCK)
    subprocess.run(["gcc", "-shared", "-fPIC", "-o", tmp_path / "clock.so", tmp_path / "clock.c"], check=True)
    clock = tmp_path / "offset"

    def started(*arguments, **options):
        clock.write_text("0")
        return lab.start(*arguments, env={"LD_PRELOAD": str(tmp_path / "clock.so"), "CLOCK_OFFSET": str(clock)}, **options)

    for script in ({}, {3: []}):
        peer = lab.peer(script)
        run = started(HOST, "-e8", "-d50000", "-T300000", at=peer.namespace)
        peer.wait_for(4)
        clock.write_text(str(offset))
        peer.wait_for(6)
        clock.write_text("0")
        run.finish(20)
        assert run.status == 0 and run.body.count("Received") + run.body.count("TIMEOUT") == 8, run.body
        assert "-" not in run.body and len(peer.packets) == 8, run.body

    here = lab.namespace()
    lab.monitor("--server", at=here)
    run = started("--client", LOOPBACK, "-e4", "-E5", "-d20000", at=here)
    run.wait_for("    2:  Pkts")
    clock.write_text(str(offset))
    run.finish(20)
    assert run.status == 0 and "Test complete!" in run.body and "-" not in run.body.partition("-e1000\n")[2], run.body
    if offset > 0:
        peer = lab.peer({})
        run = started(HOST, "-S1800", at=peer.namespace)
        peer.wait_for(2)
        clock.write_text(str(offset))
        assert run.finish(20).status == 0
