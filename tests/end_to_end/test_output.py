"""Where the output goes: live, in order, into odd places, and whole rows only."""
import os
import re
import shutil
import signal

import pytest

from lab import DATA, HOST, LOOPBACK, REMOTE_PORT, command, error, header, message, received, reply, shape, summary

CLIENT = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n"


def test_output_is_live(lab):
    for merged in (False, True):
        peer = lab.peer({})
        run = lab.start(HOST, "-d90000000", "-T90000000", at=peer.namespace, merged=merged)
        run.wait_for(f" from {HOST}\n")  # the program now waits for a minute and a half, and all of it is out
        assert shape(run.body) == (f"Destination IP = {HOST}\n" if merged else "") + received(0)
        assert merged or run.err == f"Destination IP = {HOST}\n"


def test_streams_keep_their_order_in_one_place(lab):
    script = {0: [error(2), reply()], 1: [error(2), reply(spoil=1), reply()]}
    run, _ = lab.ping(script, HOST, "-e2", "-d1000", "-T5000000", "-R127.0.0.1", "-a70000", merged=True)
    invalid = "Error: Inavlid ICMP type received\n"
    assert shape(run.body) == (
        "Sending reporting to 127.0.0.1\n-a# capped at 65534\n" f"Destination IP = {HOST}\n{invalid}" + received(0)
        + f"{invalid}Error: Received ICMP message with bad ICMP checksum\n" + received(1) + summary(2, 2) + "Cleanup exit\n")
    run = lab.run("--trace", "-E65537", merged=True)
    assert run.body.startswith("Engaging options: -e20 -t -d0\nERROR: Max -E is 65536\nvorn, version 5.2, ")


@pytest.mark.parametrize("closed", ["0", "1", "2", "0 1", "0 2", "1 2", "0 1 2"])
def test_closed_descriptors(lab, tmp_path, closed):
    here = lab.namespace()
    lab.monitor("--server", at=here)
    shell = "exec " + " ".join(f"{descriptor}>&-" for descriptor in closed.split()) + '; exec "$@"'
    closing = ["sh", "-c", shell, "sh"]
    run = lab.run("--client", "-e2", "-E3", "-d1000", "-T90000000", "-fout.csv", LOOPBACK, at=here, before=closing, cwd=tmp_path)
    assert run.status == 0
    assert run.out == "" if "1" in closed else run.body.startswith(CLIENT) and "Test complete!" in run.body
    assert run.err == ("" if "2" in closed else f"Destination IP = {LOOPBACK}\nCleanup exit\n")
    for name in ("out.csv", "HISTOGRAM_out.csv"):  # they must not have taken the console's place
        table = (tmp_path / name).read_text()
        assert re.fullmatch(r"Vorn Version,[^\n]*\n5\.2,[^\n]*,\n", table), table
    run = lab.run(LOOPBACK, "-e2", "-d1000", "-T5000000", at=here, before=closing)  # no socket either
    assert run.status == 0 and ("1" in closed or shape(run.body) == received(0, LOOPBACK) + received(1, LOOPBACK) + summary(2, 2))


def test_full_disk_and_odd_results_files(lab, tmp_path):
    here = lab.namespace()
    lab.monitor("--server", at=here)
    (tmp_path / "out").mkdir()
    os.mkfifo(tmp_path / "fifo")
    reader = os.open(tmp_path / "fifo", os.O_RDONLY | os.O_NONBLOCK)
    begin, end = f"Destination IP = {LOOPBACK}\n", "Cleanup exit\n"

    def client(name, **options):
        run = lab.start("--client", "-e2", "-E3", "-d1000", "-T90000000", "-f" + name, LOOPBACK, at=here, cwd=tmp_path, **options)
        return run.finish(20)

    run = client("/dev/full")
    assert run.err == (f"{begin}Error: could not write results file /dev/full\n"
                       f"Error: could not open histogram file HISTOGRAM_/dev/full\n{end}") and run.status == 0
    assert "Test complete!" in run.body
    run = client("out")
    assert run.err.startswith("Error: Bad filename? Permissions?\nvorn, version 5.2, ") and run.status == 1
    run = client("out/row.csv")
    assert run.err == f"{begin}Error: could not open histogram file HISTOGRAM_out/row.csv\n{end}" and run.status == 0
    assert len((tmp_path / "out/row.csv").read_text().splitlines()) == 2
    run = client("fifo")
    assert run.status == 0 and re.fullmatch(r"(5\.2,fifo,[^\n]*,\n)?", os.read(reader, 65536).decode())
    os.close(reader)
    client("fifo")  # without a reader it may refuse, but it may not hang
    with open("/dev/full", "wb") as full:
        run = client("whole.csv", stdout=full)
    assert run.err.endswith(end) and run.status in (0, 1) and len((tmp_path / "whole.csv").read_text().splitlines()) == 2


def test_results_directory_removed_while_running(lab, tmp_path):
    here = lab.namespace()
    monitor = lab.socket(here, REMOTE_PORT)
    (tmp_path / "out").mkdir()
    run = lab.start("--client", "-e1", "-E2", "-fout/row.csv", LOOPBACK, at=here, cwd=tmp_path)
    _, commander = monitor.recvfrom(1000)
    shutil.rmtree(tmp_path / "out")
    for sequence in (0, 1):
        monitor.sendto(message(DATA, 0, sequence), commander)
    run.finish()
    assert run.status == 0 and run.body.count("Test complete!") == 1
    assert run.err.endswith("Error: could not open histogram file HISTOGRAM_out/row.csv\nCleanup exit\n")


def test_two_commanders_append_to_one_file(lab, tmp_path):
    places = [lab.namespace(), lab.namespace()]
    for here in places:
        lab.monitor("--server", at=here)
    options = ("--client", "-e1", "-E2", "-d100", "-T90000000", "-fout.csv", LOOPBACK, "-F" + "tag" * 3000)
    lab.run(*options, at=places[0], cwd=tmp_path)  # the headers
    for _ in range(5):
        for run in [lab.start(*options, at=here, cwd=tmp_path) for here in places]:
            assert run.finish().status == 0
    for name, least in (("out.csv", 13 + 110), ("HISTOGRAM_out.csv", 13)):
        header_row, *rows = (tmp_path / name).read_text().splitlines()
        assert header_row.startswith("Vorn Version,") and len(rows) == 11
        assert all(row.startswith("5.2,out.csv,udp,") and row.count(",") >= least and row.endswith(",") for row in rows)


def test_datagrams_lost_in_our_own_buffer_are_told(lab):
    here = lab.namespace()
    monitor = lab.socket(here, REMOTE_PORT)
    run = lab.start("--client", "-e1", "-E20000", "-T2000000000", LOOPBACK, at=here)
    _, commander = monitor.recvfrom(1000)
    run.signal(signal.SIGSTOP)
    os.waitid(os.P_PID, run.pid, os.WSTOPPED)
    for sequence in range(20000):
        monitor.sendto(message(DATA, 0, sequence, body=bytes(1452)), commander)
    run.signal(signal.SIGCONT)
    assert header(monitor.recv(1000)).type == 4  # the stream broke off, so the batch is repeated
    run.signal(signal.SIGINT)
    run.finish(20)
    note = re.search(r"\nNote: (\d+) datagrams were dropped by this host's receive buffer \((\d+) bytes\)\nCleanup exit\n$", run.err)
    arrived = re.search(r"Pkts: +(\d+)/20000", run.body)
    assert note and int(note[1]) == 20000 - int(arrived[1]) and int(note[2]) >= 1048576, run.err
