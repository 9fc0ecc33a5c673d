# UDP and TCP: echo against a monitor, the partner protocol of two copies, and partners that behave badly.
import re, signal, socket, struct, time

import pytest
from lab import DATA, LOOPBACK, OPERATION, REMOTE_PORT, VERSION, header, last_row, message, received, shape, summary

CLIENT, TO_HERE = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n", f"Destination IP = {LOOPBACK}\n"
HEADINGS = ["Vorn Version", "Filename", "Protocol", "Bad Samples", "Packets Lost", "Packets Lost(Bad Samples)",
            "Batches", "Batch Size", "Frame IP Length", "usecs between frames", "Test Time", "Date", "Tag"]
EMPTY = -1  # a datagram of no bytes, in place of a packet's number
SURE = "-T2000000000"  # nothing is late, on any machine


@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_echo_against_a_monitor(lab, carrier):
    here = lab.namespace()
    monitor = lab.monitor(carrier, SURE, at=here)
    # Over TCP more than the buffers hold, in both directions.
    floods = [("-l65535 -a500 -d0 -e500", 500, 500), ("-i -l65535 -d1 -e400", 400, 0)] if carrier == "-p" else []
    for options, count, answered in (*floods, ("-l0", 3, 3), ("-l1500 -a20 -d0 -e500", 500, 500),
                                     ("-l65535 -d1000 -e20", 20, 20), ("-i -U -e20 -d1000", 20, 0)):
        run = lab.run(carrier, LOOPBACK, *options.split(), SURE, at=here)
        # Over TCP an answer is named after the current host, and the last request has moved that on.
        output = shape(run.body).replace("127.0.0.2", LOOPBACK) if carrier == "-p" else shape(run.body)
        assert output == "".join(received(i, LOOPBACK) for i in range(answered)) + summary(count, answered)
        assert (run.err, run.status) == (TO_HERE + "Cleanup exit\n", 0)
    assert (monitor.body, monitor.err) == ("Engaging options: -M -u -s\n", "Destination IP = 0.0.0.0\n")


def batch_line(batch, arrived, lost=0, bad=0, marker=" ", echoes=5):
    figures = "# mbps  " + "# " * 7 + " # msec "
    return f"{batch:5d}:{marker} Pkts: {arrived:3d}/{echoes:<3d}  {figures}  Lost: {lost:<5d}  Bad Samples: {bad}\n"


def test_batches_of_a_monitor_that_loses_repeats_and_reorders(lab, tmp_path):
    def skips(batch, *gaps):
        return "".join(f"Error- sequence skipped from {batch}:{a} to {b}; {b - a - 1} packets lost\n" for a, b in gaps)

    nothing = "Error- zero length recvfrom on an icmp socket\n"
    batches = [  # the packets of a stream, the line it makes, errors
        ([0, 1, 2, 3, 4], batch_line(1, 5), ""), ([0, 1, 3, 4], batch_line(2, 4, lost=1), skips(1, (1, 3))),
        ([0, 1, 2, 3], batch_line(3, 4, 1, 1, "*"), ""), ([1, 2, 3, 4], batch_line(4, 4, 1, 2, "*"), ""),
        ([], "    5:*** Rx 0, Lost 5\n", ""), ([4], "    6:*** Rx 1, Lost 4\n", ""),
        ([0, 1, 2, 77, 3, 4], batch_line(7, 3, 1, 5, "*"), "Error: Inavlid UDP type received\nFlushed 2 frames\n"),
        ([0, 1, 1, 2, EMPTY, 3, 4], batch_line(8, 6, bad=5), skips(7, (1, 1)) + nothing),
        ([0, 2, 1, 3, 4], batch_line(9, 5, bad=5), skips(8, (0, 2), (2, 1), (1, 3)))]
    here = lab.namespace()
    monitor, run = lab.socket(here, REMOTE_PORT), lab.start(
        "--client", "-e4", "-E5", SURE, "-flosses.csv", LOOPBACK, at=here, cwd=tmp_path)
    for number, (packets, _, _) in enumerate(batches):
        operation, commander = monitor.recvfrom(65536)
        assert header(operation) == (OPERATION, b"mon1" if number else struct.pack("=I", run.pid), number, 0, 164)
        run.signal(signal.SIGSTOP)
        run.wait_until("T")  # so that it finds the stream whole, and flushes what is left of it
        for packet in packets:
            data = message(77 if packet == 77 else DATA, number, packet, b"mon1", bytes(80)) if packet != EMPTY else b""
            monitor.sendto(data, commander)
        run.signal(signal.SIGCONT)
    run.finish()
    assert shape(run.body) == CLIENT + "".join(line for _, line, _ in batches) + "Test complete! Total test time: #s\n"
    assert run.err == TO_HERE + "".join(words for *_, words in batches) + "Cleanup exit\n" and run.status == 0
    row = last_row(tmp_path / "losses.csv")
    assert (row["Bad Samples"], row["Batches"], row["Batch Size"]) == ("5", "4", "5")
    assert (row["Packets Lost"], row["Packets Lost(Bad Samples)"]) == ("0", "13")
    assert 2 <= float(re.search(r"test time: +([\d.]+)s", run.body)[1]) < 20  # two of them ended by a second of silence


@pytest.mark.parametrize("name, separator, option", [
    ("out.csv", ",", "-s"), ("out.txt", "\t", "-Fnight"), ("txt", ",", "-S1")])
def test_results_files(lab, tmp_path, name, separator, option):
    here = lab.namespace()
    lab.monitor(at=here)
    asked = 1 if option == "-S1" else 7  # the duration overrides it
    for _ in range(2):
        run = lab.run("--client", LOOPBACK, f"-e{asked}", "-E10", "-d200", f"-f{name}", option, at=here, cwd=tmp_path)
    shares = [f"{i / 10:4.1f}%" for i in (*range(0, 1000, 10), *range(991, 1001))]
    for file, labels in ((name, shares), (f"HISTOGRAM_{name}", [str(i) for i in range(1, 101)])):
        headings, _, row, *end = [line.split(separator) for line in (tmp_path / file).read_text().split("\n")]
        assert headings == [*HEADINGS, *labels, ""] and end == [[""]]
        markers = re.findall(r"^ *\d+:(.)", run.body, re.M)  # one of a batch: a monitor that was held up made it bad
        bad, good = markers.count("*"), markers.count(" ")
        closed = bad + good if option == "-S1" else good
        assert row[:4] + row[6:10] == [VERSION, name, "udp", str(bad), str(closed), "10", "1500", "200"]
        assert re.fullmatch(r" *\d+\.\d{3}s", row[10]) and time.strptime(row[11])
        assert row[12] == ("night" if option == "-Fnight" else "NULL") and row[-1] == ""
        values = [float(value) for value in row[13:-1]]
        assert closed > asked if option == "-S1" else closed == asked
        assert sum(values) == good if "HIST" in file else len(values) == 110 and values == sorted(values)[::-1]


def test_multicast(lab):
    here = lab.namespace()
    here.ip("link set lo multicast on", "route add 224.0.0.0/4 dev lo")
    monitor = lab.monitor("239.1.2.3", at=here)
    assert "Joining multicast group on interface 0.0.0.0\n" in monitor.out
    assert monitor.datagrams_sent() == 0  # it asks its group nothing
    run = lab.run("-u", "-e2", "-T9000000", f"-n{LOOPBACK}", "239.1.2.3", at=here)
    assert shape(run.body) == received(0, LOOPBACK) + received(1, LOOPBACK) + summary(2, 2)


def test_commands_go_to_the_first_host_alone(lab, tmp_path):
    here = lab.namespace()
    monitor = lab.socket(here, REMOTE_PORT)
    options = ("--client", "-S9999", "-e2", "-E1", SURE, "-fout.csv")
    run = lab.start(*options, LOOPBACK, "127.0.0.5", at=here, cwd=tmp_path)
    for number in range(3):  # the first is bad, and repeated
        _, commander = monitor.recvfrom(65536)
        monitor.sendto(message(DATA, number, 1 if number == 0 else 0, b"mon1", bytes(80)), commander)
    assert run.finish().status == 0
    lines = "    1:*** Rx 1, Lost 0\n    2:*** Rx 1, Lost 0\n    3:*** Rx 1, Lost 0\n"
    assert shape(run.body) == CLIENT + lines + "Test complete! Total test time: #s\n"
    assert run.err == "Start IP= 127.0.0.1  End IP= 127.0.0.5\nCleanup exit\n"
    row = last_row(tmp_path / "out.csv")
    assert (row["Bad Samples"], row["Batches"]) == ("1", "3")  # with a duration all batches count, the bad one too


# By a commander that awaits a batch, whose results are kept, and by a test that sends.
@pytest.mark.parametrize("stray, batches", [(b"", "2"), (message(DATA, 0xFFFFFFFC, 0, b"mon2", bytes(80)), "0")])
def test_a_lost_connection(lab, tmp_path, stray, batches):
    here = lab.namespace()
    with here:
        server = lab.own(socket.create_server((LOOPBACK, REMOTE_PORT)))
    run = lab.start("-p", "--client", "-e9", "-E2", SURE, "-flost.csv", LOOPBACK, at=here, cwd=tmp_path)
    monitor, _ = server.accept()
    for number in range(2):
        monitor.recv(164, socket.MSG_WAITALL)
        monitor.sendall(b"".join(message(DATA, number, i, b"mon1", bytes(80)) for i in range(2)))
    monitor.sendall(stray)  # moves the batch to a number that is none
    monitor.close()
    assert run.finish().status == 1
    lines = batch_line(1, 2, echoes=2) + batch_line(2, 2, echoes=2)
    assert shape(run.body).startswith(CLIENT + lines + "Test complete! ")
    assert run.err == TO_HERE + "Err: Could not accept connection\nCleanup exit\n"
    assert last_row(tmp_path / "lost.csv")["Batches"] == batches
    run = lab.start("-p", "-i", "-e9999", "-d1000", LOOPBACK, at=here)
    peer, _ = server.accept()
    peer.shutdown(socket.SHUT_WR)  # so that a send meets EPIPE, and not ECONNRESET
    peer.close()
    assert run.finish().status == 0
    assert run.body.count("Err- could not send 20 bytes. Sent 0 bytes\n") == 1 and "\nIn " in run.body
