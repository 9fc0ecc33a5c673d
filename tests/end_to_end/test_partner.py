"""UDP and TCP: echo against a monitor, the partner protocol of two copies, and partners that behave badly."""
import os
import re
import signal
import socket
import struct
import time

import pytest

from lab import (COMMAND, DATA, ECHO_REPLY, ECHO_REQUEST, LOCAL_PORT, LOOPBACK, OPERATION, REMOTE_PORT, command,
                 eventually, header, message, received, shape, summary, timed_out)

ENGAGED = "Engaging options: -M -u -s\n"
CLIENT = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n"
PATIENT = "-T2000000000"  # nothing is late, on any machine


# ---- echo ----

@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_echo_against_a_monitor(lab, carrier):
    here = lab.namespace()
    monitor = lab.monitor(carrier, "--server", PATIENT, at=here)
    for options, count in ((["-l0"], 3), (["-l1500", "-a20", "-d0", "-e500"], 500), (["-l65535", "-d1000", "-e20"], 20)):
        run = lab.run(carrier, LOOPBACK, *options, PATIENT, at=here)
        # Over TCP an answer is named after the current host, and the last request has moved that on.
        output = shape(run.body).replace("127.0.0.2", LOOPBACK) if carrier == "-p" else shape(run.body)
        assert output == "".join(received(i, LOOPBACK) for i in range(count)) + summary(count, count)
        assert (run.err, run.status) == (f"Destination IP = {LOOPBACK}\nCleanup exit\n", 0)
    run = lab.run(carrier, "-i", "-U", "-e20", "-d1000", LOOPBACK, at=here)
    assert shape(run.body) == summary(20, 0)
    assert (monitor.body, monitor.err) == (ENGAGED, "Destination IP = 0.0.0.0\n")


def test_echo_mode_settles_only_what_it_asked(lab):
    here = lab.namespace()
    responder = lab.socket(here, REMOTE_PORT)
    run = lab.start("-u", LOOPBACK, "-e3", "-d1000", "-T400000", "-l100", at=here)
    for sequence in range(3):
        request, client = responder.recvfrom(65536)
        own = struct.pack("=I", run.pid)
        assert request == message(ECHO_REQUEST, 0, sequence, own, bytes(52))
        answers = [message(ECHO_REPLY, 0, sequence, b"them", bytes(52)), message(ECHO_REPLY, 0, sequence, own)[:19],
                   message(9, 0, sequence, own), message(ECHO_REPLY, 5, 99, own)]
        if sequence != 1:
            answers += [message(ECHO_REPLY, 7, sequence, own, length=1)] * 2
        for answer in answers:
            responder.sendto(answer, client)
    run.finish()
    assert shape(run.body) == received(0, LOOPBACK) + timed_out(1, LOOPBACK) + received(2, LOOPBACK) + summary(3, 2)
    assert run.err == f"Destination IP = {LOOPBACK}\n" + "Error: Inavlid UDP type received\n" * 3 + "Cleanup exit\n"


def test_tcp_connection_lost_in_echo_mode(lab):
    here = lab.namespace()
    listener = lab.socket(here, REMOTE_PORT, socket.SOCK_STREAM)
    listener.listen()
    run = lab.start("-p", LOOPBACK, "-e", "-d1000", "-T200000", at=here)
    connection = listener.accept()[0]
    request = connection.recv(20, socket.MSG_WAITALL)
    connection.sendall(message(ECHO_REPLY, 0, 0, header(request).process_id))
    connection.recv(20, socket.MSG_WAITALL)
    connection.close()
    run.finish()
    lines = run.body.split("\n")
    assert shape(run.body).startswith(received(0, LOOPBACK)) and len(lines) < 15, run.body
    assert run.body.count("Err- could not send 20 bytes. Sent 0 bytes\n") == 1 and "In " in run.body
    assert run.err.endswith("Cleanup exit\n") and run.status == 0  # the send failed; no signal ended it


# ---- a monitor and scripted senders ----

def serves(client):
    """Makes sure that the monitor answers an echo request, and gives what else it had sent to us before."""
    others = []
    client.sendto(message(ECHO_REQUEST, 7, 0xFFFFFFF0, b"ping", b"x" * 30), (LOOPBACK, REMOTE_PORT))
    while header(packet := client.recv(65536)).process_id != b"ping":
        others.append(header(packet))
    assert packet == message(ECHO_REPLY, 0, 0xFFFFFFF0, b"ping", bytes(30))
    return others


def test_monitor_tracks_streams(lab):
    here = lab.namespace()
    monitor = lab.monitor("--server", "-T50000", at=here)
    client = lab.socket(here)
    for batch, sequence in ((3, 0), (3, 1), (3, 2), (3, 5), (3, 4), (4, 65534), (4, 65535), (4, 65536), (5, 9), (5, 11)):
        client.sendto(message(DATA, batch, sequence), (LOOPBACK, REMOTE_PORT))
    eventually(lambda: "5:9" in monitor.err, "the last gap")
    time.sleep(0.25)
    client.sendto(message(DATA, 5, 65536 + 12), (LOOPBACK, REMOTE_PORT))
    client.sendto(message(DATA, 5, 99, b"else"), (LOOPBACK, REMOTE_PORT))  # another sender: a fresh start
    client.sendto(message(ECHO_REPLY, 5, 100, b"else"), (LOOPBACK, REMOTE_PORT))
    client.sendto(message(0, 5, 1), (LOOPBACK, REMOTE_PORT))
    assert serves(client) == []  # data, replies and unknown types get no answer
    lines = monitor.err.split("\n")[1:]
    late = [line for line in lines if "arrived" in line and "5:65548" in line]
    assert len(late) == 1 and int(late[0].split()[-5]) >= 200000, lines
    assert [line for line in lines if "arrived" not in line] == [
        "Error- sequence skipped from 3:2 to 5; 2 packets lost", "Error- sequence skipped from 3:5 to 4; -2 packets lost",
        "Error- sequence skipped from 5:9 to 11; 1 packets lost", "Error: Inavlid UDP type received", ""]
    assert monitor.body == ENGAGED


def test_monitor_streams_what_is_commanded(lab):
    here = lab.namespace()
    monitor = lab.monitor("--server", at=here)
    commander, stranger = lab.socket(here, LOCAL_PORT), lab.socket(here)
    for batch, echoes, length in ((0, 3, 0), (7, 50, 1500), (0xFFFFFFFF, 2, 65535)):
        stranger.sendto(message(OPERATION, batch, 0, b"cmd1", command(echoes, ip_length=length)), (LOOPBACK, REMOTE_PORT))
        size = max(length, 48) - 28
        for sequence in range(echoes):
            packet, source = commander.recvfrom(65536)
            assert packet == message(DATA, batch, sequence, struct.pack("=I", monitor.pid), bytes(size - 20))
            assert source == (LOOPBACK, REMOTE_PORT)
    begin = time.monotonic()
    stranger.sendto(message(OPERATION, 1, 0, b"cmd1", command(4, delay_usec=50000)), (LOOPBACK, REMOTE_PORT))
    stream = [header(commander.recv(65536)).sequence for _ in range(4)]
    assert stream == [0, 1, 2, 3] and time.monotonic() - begin >= 0.13
    assert serves(stranger) == [] and monitor.body == ENGAGED


def test_monitor_survives_hostile_messages(lab):
    here = lab.namespace()
    monitor = lab.monitor("--server", at=here)
    client, sink = lab.socket(here, LOCAL_PORT), (LOOPBACK, REMOTE_PORT)
    whole = message(OPERATION, 0, 0, b"evil", command(2)) + bytes(36)
    for length in range(201):
        for kind in (0, DATA, ECHO_REPLY, 5, 0xFFFFFFFF):
            client.sendto(message(kind, length, length * 7)[:length].ljust(length, b"\xff"), sink)
        client.sendto(whole[:length], sink)
        assert [packet.sequence for packet in serves(client)] == ([0, 1] if length >= 164 else []), length
    client.sendto(bytes(65507), sink)
    assert serves(client) == []

    descriptors = len(os.listdir(f"/proc/{monitor.pid}/fd"))
    values = {name.rstrip("!"): (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF) for name in COMMAND}
    values["delay_usec"] = (0, 999)  # a commander may ask for any delay, and is then obeyed
    values["echo_count"] = (0, 0xFFFFFFFF)
    for field, odd in values.items():
        for value in odd:
            client.sendto(message(OPERATION, 1, 0, b"evil", command(2, **{field: value})), sink)
            streamed = serves(client)
            if field != "ports":
                wanted = min(value, 65536) if field == "echo_count" else 2
                assert [(packet.type, packet.sequence) for packet in streamed] == [(DATA, i) for i in range(wanted)], field
    worst = dict.fromkeys(values, 0xFFFFFFFF) | {"delay_usec": 0, "echo_count": 3}
    client.sendto(message(OPERATION, 1, 0, b"evil", command(2, **worst)), sink)
    serves(client)
    for _ in range(1000):
        client.sendto(message(OPERATION, 1, 0, b"evil", command(1)), sink)
    assert len(serves(client)) == 1000
    assert len(os.listdir(f"/proc/{monitor.pid}/fd")) == descriptors and monitor.process.poll() is None


def test_two_monitors_never_answer_answers(lab):
    """A forged request in each one's name makes one answer, and that is all."""
    left, right = lab.chain(0)
    monitors = [lab.monitor("--server", host, at=at) for at, host in ((left, "10.9.0.2"), (right, "10.9.0.1"))]
    with left:
        forger = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
        tap = lab.own(socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(3)))
    body = message(ECHO_REQUEST)
    forger.sendto(struct.pack(">HHHH", REMOTE_PORT, REMOTE_PORT, 8 + len(body), 0) + body, ("10.9.0.2", 0))
    forger.close()
    tap.settimeout(0.3)
    kinds = []
    try:
        while True:
            packet = tap.recv(65536)
            if packet[9] == socket.IPPROTO_UDP and packet[20:24] == struct.pack(">HH", REMOTE_PORT, REMOTE_PORT):
                kinds.append(header(packet[28:]).type)
    except TimeoutError:
        pass
    assert kinds == [ECHO_REQUEST, ECHO_REPLY] and all(monitor.process.poll() is None for monitor in monitors)


# ---- TCP framing ----

def test_tcp_framing(lab):
    here, elsewhere = lab.namespace(), lab.namespace()
    lab.monitor("-p", "--server", at=elsewhere)
    lab.monitor("-p", "--server", at=here)
    stalled, begin = lab.connect(elsewhere), time.monotonic()
    stalled.sendall(message(ECHO_REQUEST, length=21))  # and never the last byte

    for length in (0, 1, 19, 65537, 0x80000000, 0xFFFFFFFF):
        connection = lab.connect(here)
        connection.sendall(message(ECHO_REQUEST, length=length))
        assert connection.recv(1) == b"", length
    for part in (b"", b"x", message(ECHO_REQUEST)[:19], message(ECHO_REQUEST, length=100) + bytes(79)):
        connection = lab.connect(here)
        connection.sendall(part)
        connection.close()
    connection = lab.connect(here)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for byte in message(ECHO_REQUEST, 3, 5, body=b"y" * 10):  # in single bytes, then two messages in one piece
        connection.sendall(bytes([byte]))
    connection.sendall(message(ECHO_REQUEST, 3, 6) + message(ECHO_REQUEST, 3, 7, body=bytes(65516)))
    for sequence, size in ((5, 10), (6, 0), (7, 65516)):
        answer = message(ECHO_REPLY, 0, sequence, body=bytes(size))
        assert connection.recv(len(answer), socket.MSG_WAITALL) == answer
    connection.close()

    assert stalled.recv(1) == b"" and 9 < time.monotonic() - begin
    assert lab.run("-p", LOOPBACK, "-e1", "-T9000000", at=elsewhere).body.count("Received") == 1


def test_tcp_commander_ends_with_its_connection(lab):
    here = lab.namespace()
    listener = lab.socket(here, REMOTE_PORT, socket.SOCK_STREAM)
    listener.listen()
    run = lab.start("-p", "--client", LOOPBACK, "-E5", at=here)
    connection = listener.accept()[0]
    operation = connection.recv(164, socket.MSG_WAITALL)
    assert operation == message(OPERATION, 0, 0, struct.pack("=I", run.pid),
                                command(5, udp=0, tcp=1, ip_length=1500, ports=REMOTE_PORT << 16 | LOCAL_PORT))
    connection.sendall(b"".join(message(DATA, 0, i, b"mon1") for i in range(3)))
    connection.close()
    run.finish()
    assert run.err.endswith("Err: Could not accept connection\nCleanup exit\n") and run.status == 1


# ---- a commander and a scripted monitor ----

class ScriptedMonitor:
    def __init__(self, lab, *options):
        here = lab.namespace()
        self.socket = lab.socket(here, REMOTE_PORT)
        self.run = lab.start(*options, LOOPBACK, at=here)

    def command(self):
        data, self.commander = self.socket.recvfrom(65536)
        return data

    def stream(self, batch, *packets, pause=0.0):
        for kind_or_sequence in packets:
            self.socket.sendto(message(DATA, batch, kind_or_sequence, b"mon1", bytes(80)), self.commander)


def columns(text):
    """shape() for batch lines: figures of %5.1f become #, wherever a column is wide enough."""
    return re.sub(r"(?:[ \d]{3}|\d{4,})\.\d(?!\d)", "#", text)


def batch_line(batch, arrived, lost=0, bad=0, marker=" ", echoes=5, shown="# " * 7 + " # msec "):
    return (f"{batch:5d}:{marker} Pkts: {arrived:3d}/{echoes:<3d}  # mbps  {shown}"
            f"  Lost: {lost:<5d}  Bad Samples: {bad}\n")


@pytest.mark.parametrize("options, changes", [
    (["--client"], dict(echoes=50, ip_length=1500)),
    (["-c", "-E65536", "-d0x10", "-l99999", "-T4294967295"], dict(echoes=65536, delay_usec=16, ip_length=65535, timeout_usec=15)),
    (["-c", "-d010", "-q32", "-t", "-a9", "-U", "-S9", "-v"], dict(echoes=0, delay_usec=8, tos=32)),
    (["-c", "-E1", "-d100ms", "-T99999999999"], dict(echoes=1, delay_usec=100, timeout_usec=99)),
    (["-c", "-E1", "-r3"], dict(echoes=1, delay_usec=333333)),
    (["-c", "-E1", "-r2000000"], dict(echoes=1, delay_usec=1)),
    (["--client", "-E3", "-u77", "-d250"], dict(echoes=3, delay_usec=250, ip_length=1500)),
])
def test_settings_travel(lab, options, changes):
    monitor = ScriptedMonitor(lab, *options)
    changes["command_period_usec"] = changes.setdefault("delay_usec", 1)
    changes.setdefault("timeout_usec", 100000 + changes["delay_usec"])
    assert monitor.command() == message(OPERATION, 0, 0, struct.pack("=I", monitor.run.pid), command(**changes))


def test_batches_of_a_monitor_that_loses_repeats_and_reorders(lab):
    skip = "Error- sequence skipped from {}:{} to {}; {} packets lost\n"
    batches = [  # the packets of a stream, the line it makes, errors
        ([0, 1, 2, 3, 4], batch_line(1, 5), ""),
        ([0, 1, 3, 4], batch_line(2, 4, lost=1), skip.format(1, 1, 3, 1)),
        ([0, 1, 2, 3], batch_line(3, 4, lost=1, bad=1, marker="*"), ""),
        ([1, 2, 3, 4], batch_line(4, 4, lost=1, bad=2, marker="*"), ""),
        ([], "    5:*** Rx 0, Lost 5\n", ""),
        ([4], "    6:*** Rx 1, Lost 4\n", ""),
        ([0, 1, 2, "junk", 3, 4], batch_line(7, 3, lost=1, bad=5, marker="*"),
         "Error: Inavlid UDP type received\nFlushed 2 frames\n"),
        ([0, 1, 1, 2, 3, 4], batch_line(8, 6, lost=0, bad=5), skip.format(7, 1, 1, -1)),
        ([0, 2, 1, 3, 4], batch_line(9, 5, lost=0, bad=5),
         skip.format(8, 0, 2, 1) + skip.format(8, 2, 1, -2) + skip.format(8, 1, 3, 1)),
    ]
    monitor = ScriptedMonitor(lab, "--client", "-e4", "-E5", PATIENT)
    for number, (packets, _, _) in enumerate(batches):
        operation = header(monitor.command())
        expected = struct.pack("=I", monitor.run.pid) if number == 0 else b"mon1"
        assert operation == (OPERATION, expected, number, 0, 164)
        monitor.run.signal(signal.SIGSTOP)  # so that it finds the stream whole, and flushes what is left of it
        os.waitid(os.P_PID, monitor.run.pid, os.WSTOPPED)
        for packet in packets:
            kind, sequence = (77, 0) if packet == "junk" else (DATA, packet)
            monitor.socket.sendto(message(kind, number, sequence, b"mon1", bytes(80)), monitor.commander)
        monitor.run.signal(signal.SIGCONT)
    run = monitor.run.finish()
    lines = "".join(line for _, line, _ in batches)
    assert columns(shape(run.body)) == CLIENT + lines + "Test complete! Total test time: #s\n"
    assert run.err == f"Destination IP = {LOOPBACK}\n" + "".join(words for *_, words in batches) + "Cleanup exit\n"
    assert run.status == 0


def test_arrival_lines_and_late_arrivals(lab):
    monitor = ScriptedMonitor(lab, "-c", "-e1", "-E4", "-d1000", "-T49000", "-l100")
    monitor.command()
    monitor.stream(0, 0, 1)
    monitor.run.wait_for("0:           1: ")
    time.sleep(0.1)
    monitor.stream(0, 2, 3)
    run = monitor.run.finish()
    assert shape(run.body).startswith("".join(f"  0:{i:12d}: Received Data in #s from {LOOPBACK}\n" for i in range(4)))
    assert "  0:           0: Received Data in  0.000000s" in run.body
    gap = re.search(r"^Error- packet 0:2 arrived (\d+) usecs from last one$", run.err, re.M)
    assert int(gap[1]) >= 90000


def test_a_foreign_batch_number_ends_the_test_once(lab, tmp_path):
    here = lab.namespace()
    forger = lab.socket(here, REMOTE_PORT)
    run = lab.start("--client", "-e3", "-E2", "-fout.csv", LOOPBACK, at=here, cwd=tmp_path)
    _, commander = forger.recvfrom(65536)
    for sequence in (0, 1):
        forger.sendto(message(DATA, 1000000, sequence, b"mon1"), commander)
    run.finish()
    assert run.body.count("Test complete!") == 1 and run.status == 0
    assert len((tmp_path / "out.csv").read_text().splitlines()) == 2


# ---- two copies ----

@pytest.mark.parametrize("carrier, length", [("-u", 1472), ("-p", 1460)])
def test_lines_of_two_copies(lab, carrier, length):
    here = lab.namespace()
    monitor = lab.monitor(carrier, "--server", at=here)

    def batches(*options, count, echoes=30):
        run = lab.run(carrier, "--client", LOOPBACK, f"-e{count}", f"-E{echoes}", "-d1000", PATIENT, *options, at=here)
        assert run.status == 0 and run.err == f"Destination IP = {LOOPBACK}\nCleanup exit\n"
        lines, complete, rest = run.body.partition("Test complete! Total test time: ")
        assert lines.startswith(CLIENT) and re.fullmatch(r" {0,4}\d+\.\d{3}s\n", rest)
        return lines.removeprefix(CLIENT)

    rates, spread = "# " * 7, " # msec "
    for options, shown in (([], rates + spread), (["-B"], spread), (["-b"], rates + spread + rates), (["-b", "-B"], spread + rates)):
        lines = columns(batches(*options, count=3))
        assert lines == "".join(batch_line(i, 30, echoes=30, shown=shown) for i in (1, 2, 3)), options
    assert columns(batches("-Q", count=3)) == "\n\n" + batch_line(3, 30, echoes=30)

    labels = "".join(f"{label:5.1f} " for label in (0, 50, 90, 95, 98, 99, 99.9))
    for options, row in (([], " " * 35 + labels + " " * 12 + "\n"), (["-b", "-v"], " " * 140 + labels + " " * 12 + labels + "\n"),
                         (["-B"], " " * 12)):
        lines = batches(*options, count=51, echoes=2)
        assert lines.count(row) >= 1 and lines.index(row + "   50:") > lines.index("   49:"), options
        assert lines.count("\n") == 51 + row.count("\n")

    for line in batches("-v", count=4).splitlines():
        found = re.fullmatch(r" {4}\d: (.{36})   0/ 30   0\.00% lost,   0 late (.{7,}) rx/s, (.{5,}) Mbps D=(.{5}), "
                             r"m/M/a (.{7}/.{7}/.{7}), " + r".{5,} " * 7 + r" .{5,} msec ", line)
        assert found, line
        graph, arrivals, megabits, span, gaps = found[1], *map(float, found.groups()[1:4]), found[5].split("/")
        scale = ["|" if i in (0, 35) else str(i // 5) if i % 5 == 0 else " " for i in range(36)]
        possible = {int(value) // 2 for value in (megabits - 0.06, megabits + 0.06)}
        assert any(graph == "".join("X" if i == place else mark for i, mark in enumerate(scale)) for place in possible), line
        assert megabits == pytest.approx(length * 29 * 8 / span / 1e6, rel=0.1)
        assert arrivals == pytest.approx(30 / span, rel=0.1)
        assert float(gaps[2]) == pytest.approx(span * 1000 / 30, abs=0.03) and float(gaps[0]) <= float(gaps[1])
    assert monitor.body == ENGAGED


@pytest.mark.parametrize("name, separator, options", [("out.csv", ",", []), ("out.txt", "\t", ["-Fnight"]), ("txt", ",", ["-S1"])])
def test_results_files(lab, tmp_path, name, separator, options):
    here = lab.namespace()
    lab.monitor("--server", at=here)
    for _ in range(2):
        run = lab.run("--client", LOOPBACK, "-e7", "-E10", "-d200", f"-f{name}", *options, at=here, cwd=tmp_path)
        assert run.status == 0
    tables = [[line.split(separator) for line in (tmp_path / file).read_text().split("\n")] for file in (name, f"HISTOGRAM_{name}")]
    common = ["Vorn Version", "Filename", "Protocol", "Bad Samples", "Packets Lost", "Packets Lost(Bad Samples)", "Batches",
              "Batch Size", "Frame IP Length", "usecs between frames", "Test Time", "Date", "Tag"]
    labels = [f"{i:4.1f}%" for i in range(100)] + [f"{99 + i / 10:4.1f}%" for i in range(1, 11)]
    for table, heading in zip(tables, (labels, [str(i) for i in range(1, 101)])):
        assert table[0] == common + heading + [""] and table[3:] == [[""]] and len(table) == 4
        for row in table[1:3]:
            assert row[:6] == ["5.2", name, "udp", "0", "0", "0"] and row[7:10] == ["10", "1500", "200"]
            assert re.fullmatch(r" *\d+\.\d{3}s", row[10]) and time.strptime(row[11])
            assert row[12] == ("night" if "-Fnight" in options else "NULL")
    closed = run.body.count("Pkts:")
    assert tables[0][2][6] == str(closed) and (closed == 7 or "-S1" in options and closed > 7)
    shares, counts = tables[0][2][13:-1], [int(count) for count in tables[1][2][13:-1]]
    assert len(shares) == 110 and sum(counts) == closed and counts[0] == 0 and counts[-1] > 0
    assert [float(share) for share in shares] == sorted(map(float, shares), reverse=True)
    last = re.findall(r"mbps(.*)  .{5,} msec", run.body)[-1].split()
    if "-S1" not in options:  # of seven samples no share falls between two
        assert [float(shares[labels.index(label)]) for label in (" 0.0%", "50.0%", "90.0%", "95.0%", "98.0%", "99.0%", "99.9%")] \
            == [float(figure) for figure in last]
    assert (len(counts) - 2) <= float(shares[0]) < len(counts) - 1 + 0.05


# ---- multicast ----

def test_multicast(lab):
    here = lab.namespace()
    run = lab.monitor("--server", "239.1.2.3", at=here)
    assert run.err.startswith("Error: Could not join multicast group, err = -1, lasterr = 0\n")  # no route to it yet
    run.process.kill()
    run.process.wait()
    here.ip("route add 239.0.0.0/8 dev lo")
    run = lab.monitor("--server", "239.1.2.3", at=here)
    assert run.body == ENGAGED + "Joining multicast group on interface 0.0.0.0\n"
    client = lab.socket(here)
    client.sendto(message(ECHO_REQUEST), ("239.1.2.3", REMOTE_PORT))
    assert client.recv(100) == message(ECHO_REPLY)
    run.process.kill()
    run.process.wait()
    run = lab.monitor("--server", "239.1.2.3", f"-n{LOOPBACK}", at=here)
    assert run.body == ENGAGED + f"Joining multicast group on interface {LOOPBACK}\n"
    assert serves(client) == []
    client.connect(("127.0.0.2", REMOTE_PORT))  # not the address it is bound to
    client.send(b"x")
    with pytest.raises(ConnectionRefusedError):
        client.recv(1)
