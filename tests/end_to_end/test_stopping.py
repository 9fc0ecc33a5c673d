# Stop signals in each mode, sends that wait, and the progress line of SIGQUIT.
import contextlib, fcntl, os, re, signal, socket, threading, time

import pytest
from lab import (
    DATA, HOST, LOCAL_PORT, LOOPBACK, OPERATION, REMOTE_PORT, TunPeer, command, eventually, header, last_row,
    message, received, reply, shape, summary, timed_out)

STOPS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
AT_ONCE = 10  # seconds; every run here would otherwise go on for a minute or more
SLOW, SURE = "-d90000000", "-T9000000"


def stop(run, number):
    run.signal(number)
    run.finish(AT_ONCE)
    assert run.status == -number and run.err.endswith("Cleanup exit\n") and run.err.count("Cleanup exit") == 1


def test_echo_mode_ends_properly(lab):
    three = {0: [], 1: [], 2: [reply(0.3, shift=-2), reply(shift=-1), reply()]}
    for options, script, count, lines in (  # the signal comes after so many requests
        (["-d1000", SURE], {1: [reply(0.3)]}, 2, received(0) + received(1) + summary(2, 2)),
        (["-d1000", "-T300000"], {0: []}, 1, timed_out(0) + summary(1, 0)),
        (["-d1000", "-a3", SURE], three, 3, "".join(map(received, range(3))) + summary(3, 3)),
        ([SLOW, "-i"], {}, 1, summary(1, 0)), ([SLOW, "-s", "10.9.0.9"], {}, 1, summary(1, 1)),
    ):
        for number in STOPS:
            run, peer = lab.pinging(script, count, HOST, "-e9999", *options)
            time.sleep(0.05)  # the answers that come at once are in
            stop(run, number)
            assert shape(run.body) == lines and len(peer.packets) == count
            length, *times = re.findall(r"^(?:In| .* in) +([\d.]+)s", run.body, re.MULTILINE)[::-1]
            assert all(float(time) <= float(length) for time in times)  # the test lasts until all is settled


def test_second_signal_ends_at_once_and_a_quit_signal_shows_progress(lab):
    run, _ = lab.pinging({1: []}, 2, HOST, "-e4", "-T90000000", before=["env", "--ignore-signal=HUP"])
    run.signal(signal.SIGQUIT)
    run.signal(signal.SIGTERM)
    time.sleep(0.2)
    assert run.status is None  # the request is still outstanding
    run.signal(signal.SIGHUP)  # one that was ignored at the start is no second signal
    run.signal(signal.SIGINT)
    assert run.finish(AT_ONCE).status in (-signal.SIGINT, -signal.SIGTERM)
    assert re.findall(r"\d+(?:\.\d+)?", run.err.splitlines()[1]) == ["2", "1", "0", "0.00"]


def test_signals_that_are_ignored_or_not_ours(lab):
    run, _ = lab.pinging({}, 1, HOST, SLOW, before=["env", "--ignore-signal=HUP,QUIT"])
    for number in (signal.SIGHUP, signal.SIGQUIT):
        run.signal(number)
    stop(run, signal.SIGTERM)
    assert "So far" not in run.err
    run = lab.monitor(before=["prlimit", "--core=0"])
    run.signal(signal.SIGQUIT)  # a monitor has no progress to show
    assert run.finish(AT_ONCE).status == -signal.SIGQUIT


def test_a_slow_pipe_gets_every_line(lab):
    reading, writing = os.pipe()
    with open(reading) as pipe, open(writing, "w") as end:
        fcntl.fcntl(end, fcntl.F_SETPIPE_SZ, 4096)
        run = lab.start("-d0", "-e", "-a50", SURE, LOOPBACK, stdout=end)
        end.close()
        eventually(lambda: "pipe" in run.proc("wchan"), "the pipe that is full")
        run.signal(signal.SIGINT)
        eventually(lambda: re.search(r"ShdPnd:\t0+\n", run.proc("status")), "the signal that is noted")
        _, _, *lines, counts, _, _, _, _ = pipe.read().splitlines()
    assert run.finish(AT_ONCE).status == -signal.SIGINT
    answered = int(re.search(r"(\d+) rx pkts", counts)[1])
    assert [line.split(":")[0].strip() for line in lines] == [str(i) for i in range(answered)]


def test_commander_writes_its_rows(lab, tmp_path):
    for number, silent in zip(STOPS, (False, True, False)):
        here, name = lab.namespace(), f"{number.name}.csv"
        monitor = lab.socket(here, REMOTE_PORT) if silent else lab.monitor(at=here)
        run = lab.start("--client", LOOPBACK, "-e", "-E10", f"-f{name}", at=here, cwd=tmp_path)
        monitor.recv(1000) if silent else run.wait_for("    3:  Pkts")
        run.signal(signal.SIGQUIT)
        run.wait_for("So far: ")
        if silent:
            run.wait_until("S")  # in the middle of its batch
        stop(run, number)
        assert re.search(r"\nTest complete! Total test time:  *\d+\.\d{3}s\n$", run.body)
        assert " Rx " not in run.body  # the open batch is not judged
        for file in (name, "HISTOGRAM_" + name):
            assert (tmp_path / file).read_text().count("\n") == 2
            assert last_row(tmp_path / file)["Batches"] == str(run.body.count("Pkts:"))


# What has been sent to the monitor: so many bytes of a command for a slow stream, or not even a connection.
@pytest.mark.parametrize("carrier, length", [
    ("-u", None), ("-u", 164), ("-p", None), ("-p", 0), ("-p", 10), ("-p", 164)])
def test_monitor_ends_at_once(lab, carrier, length):
    slow = message(OPERATION, body=command(9, delay_usec=90000000, udp=carrier == "-u", tcp=carrier == "-p"))
    for number in STOPS:
        here = lab.namespace()
        run = lab.monitor(carrier, at=here)
        if length is not None:
            client = lab.socket(here, LOCAL_PORT, LOOPBACK if carrier == "-p" else None)
            client.sendto(slow[:length], (LOOPBACK, REMOTE_PORT))
            assert length < 164 or header(client.recv(20)).type == DATA
            time.sleep(0.05)
        stop(run, number)
        assert (run.body, run.err) == ("Engaging options: -M -u -s\n", "Destination IP = 0.0.0.0\nCleanup exit\n")


def test_a_send_that_cannot_go_on_ends_with_the_test(lab):
    peer = lab.own(TunPeer(lab.namespace(), {}))
    run = lab.start("-p", HOST, at=peer.namespace)
    run.wait_for("Built")  # it tries to connect, and nobody answers
    run.signal(signal.SIGQUIT)  # has no progress to show yet
    stop(run, signal.SIGTERM)
    queue = "qdisc replace dev tun0 root tbf rate 64kbit burst 3000 limit 99999999"  # so that it fills a send buffer
    lab.run(*queue.split(), program="tc", at=peer.namespace)
    with peer.namespace:
        deaf = lab.own(socket.create_server((LOOPBACK, REMOTE_PORT)))  # takes connections, reads nothing
    for carrier, host in (("-u", HOST), ("-p", LOOPBACK)):
        for options in (["--blast", carrier], [carrier, "-i", "-d100", "-l9000", "-e"],
                        [carrier, "-a60000", "-m", "-d100", "-l9000"]):
            run = lab.start(*options, host, "-S1", at=peer.namespace)
            assert run.finish(AT_ONCE).status == 0 and "Err-" not in run.out, run.out
            assert float(re.search(r"In +([\d.]+)s", run.body)[1]) < 2
        run = lab.start("--blast", carrier, host, at=peer.namespace)
        time.sleep(0.5)  # by now it is stuck
        run.signal(signal.SIGQUIT)
        eventually(lambda: "So far: " in run.err, "the progress", AT_ONCE)
        stop(run, signal.SIGINT)
    deaf.close()


def test_a_peer_that_never_stops_sending_does_not_hold_a_test(lab):
    here = lab.namespace()
    with here:
        server = lab.own(socket.create_server((LOOPBACK, REMOTE_PORT)))

    def flood():
        connection, _ = server.accept()
        with contextlib.suppress(OSError):
            while True:
                connection.sendall(bytes(1 << 20))

    thread = threading.Thread(target=flood, daemon=True)
    thread.start()
    run = lab.start("-p", "-i", "-l9000", "-d10", "-S1", LOOPBACK, at=here)
    assert run.finish(AT_ONCE).status == 0 and float(re.search(r"In +([\d.]+)s", run.body)[1]) < 3, run.body
    thread.join()
