# Where the output goes: live, in order, into odd places, and whole rows only.
import os, re, shutil, signal, subprocess

import pytest
from lab import (
    HOST, LOCAL_PORT, LOOPBACK, REMOTE_PORT, VERSION, TunPeer, error, eventually, received, reply, shape, summary, udp)

CLIENT, END = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n", "Cleanup exit\n"
SHORT = ("--client", LOOPBACK, "-e2", "-E3", "-d1000", "-T2000000000")
TO_HERE, NO_HISTOGRAM = f"Destination IP = {LOOPBACK}\n", "Error: could not open histogram file HISTOGRAM_"


def test_output_is_live_and_streams_keep_their_order(lab):
    for merged in (False, True):
        run, _ = lab.pinging({}, 1, HOST, "-d90000000", "-T90000000", merged=merged)
        run.wait_for(f" from {HOST}\n")  # the program now waits for a minute and a half, and all of it is out
        to_there = f"Destination IP = {HOST}\n"
        assert (shape(run.body), run.err) == ((to_there + received(0), "") if merged else (received(0), to_there))
    run, _ = lab.ping({1: [error(2), reply()]}, HOST, "-T9000000", f"-R{LOOPBACK}", "-a70000", merged=True)
    start = f"Sending reporting to {LOOPBACK}\n-a# capped at 65534\n{to_there}" + received(0)
    lines = "Error: Inavlid ICMP type received\n" + received(1) + received(2) + summary(3, 3) + END
    assert shape(run.body) == start + lines


def test_the_banner_is_out_before_a_name_is_looked_up(lab, tmp_path):
    here, names = lab.namespace(), tmp_path / "resolv.conf"
    names.write_text(f"nameserver {LOOPBACK}\n")
    subprocess.run(["unshare", "--mount", "true"], check=True)  # fails at once where the root is no mount point
    server = lab.socket(here, 53)  # is asked and never answers
    mounting = ["unshare", "--mount", "sh", "-c", f'mount --bind {names} /etc/resolv.conf; exec "$@"', "sh"]
    run = lab.start("slow.example", at=here, before=mounting)
    server.recv(1000)
    assert (run.body, run.status) == ("", None)  # nothing behind the banner


@pytest.mark.parametrize("closed", ["0", "1", "2", "0 1", "0 2", "1 2", "0 1 2"])
def test_closed_descriptors(lab, tmp_path, closed):
    here = lab.namespace()
    lab.monitor(at=here)
    closing = ["sh", "-c", "exec " + " ".join(f"{number}>&-" for number in closed.split()) + '; exec "$@"', "sh"]
    run = lab.run(*SHORT, "-fout.csv", at=here, before=closing, cwd=tmp_path)
    assert run.out == "" if "1" in closed else run.body.startswith(CLIENT) and "Test complete!" in run.body
    assert (run.err, run.status) == ("" if "2" in closed else TO_HERE + END, 0)
    for name in ("out.csv", "HISTOGRAM_out.csv"):  # neither they nor a socket have taken the console's place
        assert re.fullmatch(rf"Vorn Version,[^\n]*\n{re.escape(VERSION)},[^\n]*,\n", (tmp_path / name).read_text())


def test_full_disk_and_odd_results_files(lab, tmp_path):
    here = lab.namespace()
    lab.monitor(at=here)
    (tmp_path / "out").mkdir()
    os.mkfifo(tmp_path / "fifo")
    reader = open(os.open(tmp_path / "fifo", os.O_RDONLY | os.O_NONBLOCK))
    for name, words in (("/dev/full", f"Error: could not write results file /dev/full\n{NO_HISTOGRAM}/dev/full\n"),
                        ("out/row.csv", f"{NO_HISTOGRAM}out/row.csv\n"), ("fifo", "")):
        run = lab.run(*SHORT, f"-f{name}", at=here, cwd=tmp_path)
        assert (run.err, run.status) == (TO_HERE + words + END, 0)
    assert (tmp_path / "out/row.csv").read_text().count("\n") == 2
    assert re.fullmatch(rf"({re.escape(VERSION)},fifo,[^\n]*,\n)?", reader.read())
    run = lab.start(*SHORT, "-d300000", "-ffifo", at=here, cwd=tmp_path)
    run.wait_for("Destination")
    reader.close()
    assert run.finish().err == f"{TO_HERE}Error: could not write results file fifo\n{END}" and run.status == 0
    (tmp_path / "gone").mkdir()
    run = lab.start("--client", LOOPBACK, "-e1", "-E2", "-d300000", "-fgone/out.csv", at=here, cwd=tmp_path)
    run.wait_for("Destination")
    shutil.rmtree(tmp_path / "gone")
    assert "Error: could not write results file gone/out.csv\n" in run.finish().err and run.status == 0
    lab.run(*SHORT, "-ffifo", at=here, cwd=tmp_path)  # without a reader it may refuse, but it may not hang
    with open("/dev/full", "wb") as full:
        run = lab.run(*SHORT, "-fwhole.csv", at=here, cwd=tmp_path, stdout=full)
    assert run.err.endswith(END) and (tmp_path / "whole.csv").read_text().count("\n") == 2 and run.status in (0, 1)


def test_what_becomes_of_a_results_file_without_a_row(lab, tmp_path):
    here = lab.namespace()
    (tmp_path / "kept.csv").touch()
    refused = f"Error- could not connect to {LOOPBACK}\n"
    for name in ("new.csv", "kept.csv"):
        run = lab.run("-p", "--client", LOOPBACK, "-fearlier.csv", f"-f{name}", at=here, cwd=tmp_path)
        assert run.err == refused + END
    lab.run("-p", "--client", LOOPBACK, "-fdetached.csv", "-M", at=here, cwd=tmp_path)  # it works in / from then on
    eventually(lambda: not (tmp_path / "detached.csv").exists(), "the end of the detached commander")
    lab.run("-e1", "-s", "-U", "-i", LOOPBACK, "-fecho.csv", at=here, cwd=tmp_path)
    lab.run("-frejected.csv", "-x", at=here, cwd=tmp_path)
    stays = ["earlier.csv", "echo.csv", "kept.csv", "rejected.csv"]
    assert sorted(os.listdir(tmp_path)) == stays
    lab.monitor(at=here)
    no_growth = ["sh", "-c", 'ulimit -f 2; exec "$@"', "sh"]  # a kilobyte: what is printed fits, a row so tagged does not
    tag = "-F" + "tag" * 400
    (tmp_path / "kept.csv").write_text(rows := "a row of a test before\n" * 50)  # more than that already
    could_not = "Error: could not write results file "
    for name in ("row.csv", "kept.csv"):
        run = lab.run(*SHORT, f"-f{name}", tag, at=here, cwd=tmp_path, before=no_growth)
        assert run.err == TO_HERE + f"{could_not}{name}\n{could_not}HISTOGRAM_{name}\n" + END and run.status == 0
    assert (tmp_path / "kept.csv").read_text() == rows
    assert sorted(os.listdir(tmp_path)) == stays
    failing = lab.start("--client", LOOPBACK, "-fboth.csv", tag, cwd=tmp_path, before=no_growth)
    failing.wait_for("Destination")
    other = lab.start("--client", LOOPBACK, "-fboth.csv", cwd=tmp_path)
    other.wait_for("Destination")  # both have the file open by now
    for run in (failing, other):
        run.signal(signal.SIGTERM)
        run.finish()
    assert could_not in failing.err and "Error" not in other.err
    assert (tmp_path / "both.csv").read_text().count("\n") == 1  # the heading is its maker's


def test_two_commanders_append_to_one_file(lab, tmp_path):
    places = [lab.namespace(), lab.namespace()]
    for here in places:
        lab.monitor(at=here)
    options = (*SHORT, "-fout.csv", "-F" + "tag" * 3000)
    lab.run(*options, at=places[0], cwd=tmp_path)  # the headers
    for _ in range(5):
        for run in [lab.start(*options, at=here, cwd=tmp_path) for here in places]:
            assert run.finish().status == 0
    for name, least in (("out.csv", 13 + 110), ("HISTOGRAM_out.csv", 13)):
        headings, *rows = (tmp_path / name).read_text().splitlines()
        assert headings.startswith("Vorn Version,") and len(rows) == 11
        assert all(row.startswith(f"{VERSION},out.csv,udp,") and row.count(",") >= least and row.endswith(",") for row in rows)


def test_what_this_host_itself_lost_is_told(lab):
    peer = lab.own(TunPeer(lab.namespace(), {}))
    lab.run(*"qdisc replace dev tun0 root tbf rate 1mbit burst 3000 limit 6000".split(), program="tc", at=peer.namespace)
    flood = ("-d1", "-l30000", "-m", "-s", "-T300000")  # six megabytes: more than the buffer of the reader, who sends
    full = r"Note: (\d+) datagrams were dropped by this host's receive buffer \([1-9]\d* bytes\)\n"
    discarded = r"Note: this host discarded at least (\d+) outgoing packets during the test\n"
    for options, host, note in (((*flood, "-e200", "-a200"), LOOPBACK, full), ((*flood, "-e200", "-i"), LOOPBACK, ""),
                                *[(("-i", "-e200", "-d1", "-l1500"), HOST, discarded)] * 2):  # each of its own run
        run = lab.run(*options, host, at=peer.namespace)
        found = re.fullmatch(f"Destination IP = {host}\n{note}{END}", run.err)
        assert found, run.err
        missing = int(re.search(r"(\d+) missing", run.body)[1])
        assert not note or 0 < int(found[1]) <= missing and (note == discarded or int(found[1]) == missing)
    silent = lab.socket(peer.namespace, REMOTE_PORT)
    run = lab.start("-u", "-e1", "-T300000", LOOPBACK, at=peer.namespace)
    silent.recv(100)
    spoilt = udp((LOOPBACK, REMOTE_PORT), (LOOPBACK, LOCAL_PORT), bytes(200), checksum=1)
    lab.raw_socket(peer.namespace).sendto(spoilt, (LOOPBACK, 0))
    assert run.finish().err == f"Destination IP = {LOOPBACK}\n{END}"  # the socket dropped it, but not for its buffer
