# UDP and TCP: echo against a monitor, the partner protocol of two copies, and partners that behave badly.
from lab import *

ENGAGED = "Engaging options: -M -u -s\n"
CLIENT = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n"
TO_HERE = f"Destination IP = {LOOPBACK}\n"
SURE = "-T2000000000"  # nothing is late, on any machine
SERVER = (LOOPBACK, REMOTE_PORT)


# ---- echo ----

@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_echo_against_a_monitor(lab, carrier):
    here = lab.namespace()
    monitor = lab.monitor(carrier, SURE, at=here)
    for options, count in (("-l0", 3), ("-l1500 -a20 -d0 -e500", 500), ("-l65535 -d1000 -e20", 20)):
        run = lab.run(carrier, LOOPBACK, *options.split(), SURE, at=here)
        # Over TCP an answer is named after the current host, and the last request has moved that on.
        output = shape(run.body).replace("127.0.0.2", LOOPBACK) if carrier == "-p" else shape(run.body)
        assert output == "".join(received(i, LOOPBACK) for i in range(count)) + summary(count, count)
        assert (run.err, run.status) == (TO_HERE + "Cleanup exit\n", 0)
    assert shape(lab.run(carrier, "-i", "-U", "-e20", "-d1000", LOOPBACK, at=here).body) == summary(20, 0)
    assert (monitor.body, monitor.err) == (ENGAGED, "Destination IP = 0.0.0.0\n")


def test_echo_mode_settles_only_what_it_asked(lab):
    here = lab.namespace()
    responder = lab.socket(here, REMOTE_PORT)
    run = lab.start("-u", LOOPBACK, "-e3", "-d1000", "-T400000", "-l100", at=here)
    own = struct.pack("=I", run.pid)
    for sequence in range(3):
        request, client = responder.recvfrom(65536)
        assert request == message(ECHO_REQUEST, 0, sequence, own, bytes(52))
        right = [] if sequence == 1 else [message(ECHO_REPLY, 7, sequence, own, length=1)] * 2
        for answer in (message(ECHO_REPLY, 0, sequence, b"them"), message(ECHO_REPLY, 0, sequence, own)[:19],
                       message(9, 0, sequence, own), message(ECHO_REPLY, 5, 99, own), *right):
            responder.sendto(answer, client)
    run.finish()
    assert shape(run.body) == received(0, LOOPBACK) + timed_out(1, LOOPBACK) + received(2, LOOPBACK) + summary(3, 2)
    assert run.err == TO_HERE + "Error: Inavlid UDP type received\n" * 3 + "Cleanup exit\n"


def test_tcp_connections_that_end(lab):
    here = lab.namespace()
    listener = lab.socket(here, REMOTE_PORT, socket.SOCK_STREAM)
    run = lab.start("-p", LOOPBACK, "-e", "-d1000", "-T200000", at=here)
    connection = listener.accept()[0]
    connection.sendall(message(ECHO_REPLY, 0, 0, header(connection.recv(20, socket.MSG_WAITALL)).process_id))
    connection.recv(20, socket.MSG_WAITALL)
    connection.close()
    lines = shape(run.finish().body)  # two billion requests were never sent, and are not spoken of
    assert lines.startswith(received(0, LOOPBACK)) and lines.count("\n") < 15 and "In #s, " in lines, lines
    assert lines.count("Err- could not send 20 bytes. Sent 0 bytes\n") == 1
    assert run.err.endswith("Cleanup exit\n") and run.status == 0  # no signal ended it

    run = lab.start("-p", "--client", LOOPBACK, "-E5", at=here)
    connection = listener.accept()[0]
    wanted = command(5, udp=0, tcp=1, ip_length=1500)
    assert connection.recv(164, socket.MSG_WAITALL) == message(OPERATION, 0, 0, struct.pack("=I", run.pid), wanted)
    connection.sendall(message(DATA, 0, 0, b"mon1") + message(DATA, 0, 1, b"mon1"))
    connection.close()
    run.finish()
    assert run.err.endswith("Err: Could not accept connection\nCleanup exit\n") and run.status == 1


# ---- a monitor and scripted senders ----

# Makes sure that the monitor answers an echo request, and gives what else it had sent to us before.
def serves(client):
    others = []
    client.sendto(message(ECHO_REQUEST, 7, 0xFFFFFFF0, b"ping", b"x" * 30), SERVER)
    while header(packet := client.recv(65536))[:2] != (ECHO_REPLY, b"ping"):
        others.append(header(packet))
    assert packet == message(ECHO_REPLY, 0, 0xFFFFFFF0, b"ping", bytes(30))
    return others


def test_monitor_streams_what_is_commanded(lab):
    here = lab.namespace()
    monitor, commander, stranger = lab.monitor(at=here), lab.socket(here, LOCAL_PORT), lab.socket(here)
    for batch, echoes, length, delay in ((0, 3, 0, 1), (7, 50, 1500, 1), (0xFFFFFFFF, 2, 65535, 1), (1, 4, 0, 50000)):
        begin, body = time.monotonic(), command(echoes, ip_length=length, delay_usec=delay)
        stranger.sendto(message(OPERATION, batch, 0, b"cmd1", body), SERVER)
        for sequence in range(echoes):
            data = message(DATA, batch, sequence, struct.pack("=I", monitor.pid), bytes(max(length, 48) - 48))
            assert commander.recvfrom(65536) == (data, SERVER)
        assert time.monotonic() - begin >= (echoes - 1) * delay / 1e6 - 0.011
    assert serves(stranger) == [] and monitor.body == ENGAGED


def test_monitor_survives_hostile_messages(lab):
    here = lab.namespace()
    monitor, client = lab.monitor(at=here), lab.socket(here, LOCAL_PORT)
    whole = message(OPERATION, 0, 0, b"evil", command(2)) + bytes(36)
    for length in range(201):
        for kind in (0, DATA, ECHO_REPLY, 5, 0xFFFFFFFF):
            client.sendto(message(kind, length, length * 7)[:length].ljust(length, b"\xff"), SERVER)
        client.sendto(whole[:length], SERVER)
        assert [packet.sequence for packet in serves(client)] == ([0, 1] if length >= 164 else []), length
    client.sendto(bytes(65507), SERVER)
    assert serves(client) == []

    descriptors = len(os.listdir(f"/proc/{monitor.pid}/fd"))
    values = dict.fromkeys((name.rstrip("!") for name in COMMAND), (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF))
    values |= {"echo_count": (0, 0xFFFFFFFF), "delay_usec": (0, 999)}  # any delay is obeyed, so no long ones
    for field, odd in values.items():
        for value in odd:
            client.sendto(message(OPERATION, 1, 0, b"evil", command(2, **{field: value})), SERVER)
            count = min(value, 65536) if field == "echo_count" else 2
            streamed = [(packet.type, packet.sequence) for packet in serves(client)]
            assert field == "ports" or streamed == [(DATA, i) for i in range(count)], (field, value)
    worst = dict.fromkeys(values, 0xFFFFFFFF) | {"delay_usec": 0, "echo_count": 3}
    client.sendto(message(OPERATION, 1, 0, b"evil", command(2, **worst)), SERVER)
    serves(client)
    for _ in range(1000):
        client.sendto(message(OPERATION, 1, 0, b"evil", command(1)), SERVER)
    assert len(serves(client)) == 1000 and len(os.listdir(f"/proc/{monitor.pid}/fd")) == descriptors


def test_tcp_framing(lab):
    def connect(at):
        return lab.socket(at, kind=socket.SOCK_STREAM, to=LOOPBACK)

    here, elsewhere = lab.namespace(), lab.namespace()
    for at in (here, elsewhere):
        lab.monitor("-p", at=at)
    stalled, begin = connect(elsewhere), time.monotonic()
    stalled.sendall(message(ECHO_REQUEST, length=21))  # and never the last byte
    for length in (0, 1, 19, 65537, 0x80000000, 0xFFFFFFFF):
        connection = connect(here)
        connection.sendall(message(ECHO_REQUEST, length=length))
        assert connection.recv(1) == b"", length
    for part in (b"", b"x", message(ECHO_REQUEST)[:19], message(ECHO_REQUEST, length=100) + bytes(79)):
        with connect(here) as connection:
            connection.sendall(part)
    connection = connect(here)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for byte in message(ECHO_REQUEST, 3, 5, body=b"y" * 10):  # in single bytes, then two messages in one piece
        connection.sendall(bytes([byte]))
    connection.sendall(message(ECHO_REQUEST, 3, 6) + message(ECHO_REQUEST, 3, 7, body=bytes(65516)))
    for sequence, size in ((5, 10), (6, 0), (7, 65516)):
        answer = message(ECHO_REPLY, 0, sequence, body=bytes(size))
        assert connection.recv(len(answer), socket.MSG_WAITALL) == answer
    assert stalled.recv(1) == b"" and time.monotonic() - begin > 9
    assert lab.run("-p", LOOPBACK, "-e1", SURE, at=elsewhere).body.count("Received") == 1


# ---- a commander and a scripted monitor ----

# A scripted monitor's socket, and a commander that runs against it.
def commanded(lab, *options, **more):
    here = lab.namespace()
    return lab.socket(here, REMOTE_PORT), lab.start(*options, LOOPBACK, at=here, **more)


def batch_line(batch, arrived, lost=0, bad=0, marker=" ", echoes=5, shown="# " * 7 + " # msec "):
    return (f"{batch:5d}:{marker} Pkts: {arrived:3d}/{echoes:<3d}  # mbps  {shown}"
            f"  Lost: {lost:<5d}  Bad Samples: {bad}\n")


def test_batches_of_a_monitor_that_loses_repeats_and_reorders(lab):
    def skips(batch, *gaps):
        return "".join(f"Error- sequence skipped from {batch}:{a} to {b}; {b - a - 1} packets lost\n" for a, b in gaps)

    batches = [  # the packets of a stream, the line it makes, errors
        ([0, 1, 2, 3, 4], batch_line(1, 5), ""),
        ([0, 1, 3, 4], batch_line(2, 4, lost=1), skips(1, (1, 3))),
        ([0, 1, 2, 3], batch_line(3, 4, lost=1, bad=1, marker="*"), ""),
        ([1, 2, 3, 4], batch_line(4, 4, lost=1, bad=2, marker="*"), ""),
        ([], "    5:*** Rx 0, Lost 5\n", ""),
        ([4], "    6:*** Rx 1, Lost 4\n", ""),
        ([0, 1, 2, "junk", 3, 4], batch_line(7, 3, lost=1, bad=5, marker="*"),
         "Error: Inavlid UDP type received\nFlushed 2 frames\n"),
        ([0, 1, 1, 2, 3, 4], batch_line(8, 6, lost=0, bad=5), skips(7, (1, 1))),
        ([0, 2, 1, 3, 4], batch_line(9, 5, lost=0, bad=5), skips(8, (0, 2), (2, 1), (1, 3))),
    ]
    monitor, run = commanded(lab, "--client", "-e4", "-E5", SURE)
    for number, (packets, _, _) in enumerate(batches):
        operation, commander = monitor.recvfrom(65536)
        assert header(operation) == (OPERATION, b"mon1" if number else struct.pack("=I", run.pid), number, 0, 164)
        run.freeze()  # so that it finds the stream whole, and flushes what is left of it
        for packet in packets:
            kind, sequence = (77, 0) if packet == "junk" else (DATA, packet)
            monitor.sendto(message(kind, number, sequence, b"mon1", bytes(80)), commander)
        run.process.send_signal(signal.SIGCONT)
    run.finish()
    assert shape(run.body) == CLIENT + "".join(line for _, line, _ in batches) + "Test complete! Total test time: #s\n"
    assert run.err == TO_HERE + "".join(words for *_, words in batches) + "Cleanup exit\n" and run.status == 0
    assert 2 <= float(re.search(r"test time: +([\d.]+)s", run.body)[1]) < 20  # two of them ended by a second of silence


def test_arrival_lines_late_arrivals_and_a_foreign_batch_number(lab, tmp_path):
    monitor, run = commanded(lab, "-c", "-e1", "-E4", "-d1000", "-T49000", "-l100")
    _, commander = monitor.recvfrom(65536)
    for sequence in range(4):
        monitor.sendto(message(DATA, 0, sequence), commander)
        if sequence == 1:
            run.wait_for("0:           1: ")
            time.sleep(0.1)
    lines = "".join(f"  0:{i:12d}: Received Data in #s from {LOOPBACK}\n" for i in range(4))
    assert shape(run.finish().body).startswith(lines) and "  0:           0: Received Data in  0.000000s" in run.body
    assert int(re.search(r"^Error- packet 0:2 arrived (\d+) usecs from last one$", run.err, re.M)[1]) >= 90000

    monitor, run = commanded(lab, "--client", "-e3", "-E2", "-fout.csv", cwd=tmp_path)
    _, commander = monitor.recvfrom(65536)
    for sequence in (0, 1):
        monitor.sendto(message(DATA, 1000000, sequence), commander)
    assert run.finish().body.count("Test complete!") == 1 and run.status == 0
    assert len((tmp_path / "out.csv").read_text().splitlines()) == 2


# ---- two copies ----

@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_lines_of_two_copies(lab, carrier):
    here = lab.namespace()
    lab.monitor(carrier, at=here)

    def batches(options, count, echoes=30):
        fixed = (carrier, "--client", LOOPBACK, f"-e{count}", f"-E{echoes}", "-d1000", SURE)
        run = lab.run(*fixed, *options.split(), at=here)
        assert run.status == 0 and run.err == TO_HERE + "Cleanup exit\n"
        lines, _, rest = run.body.removeprefix(CLIENT).partition("Test complete! Total test time: ")
        assert re.fullmatch(r" {0,4}\d+\.\d{3}s\n", rest)
        return lines

    rates, spread = "# " * 7, " # msec "
    columns = {"": rates + spread, "-B": spread, "-b": rates + spread + rates, "-b -B": spread + rates}
    for options, shown in columns.items():
        lines = [batch_line(i, 30, echoes=30, shown=shown) for i in (1, 2)]
        assert shape(batches(options, 2)) == "".join(lines), options
    assert shape(batches("-Q", 3)) == "\n\n" + batch_line(3, 30, echoes=30)
    labels = "  0.0  50.0  90.0  95.0  98.0  99.0  99.9 "
    for options, row in (("", " " * 35 + labels + " " * 12 + "\n"), ("-B", " " * 12),
                         ("-b -v", " " * 140 + labels + " " * 12 + labels + "\n")):
        lines = batches(options, 51, echoes=2)
        assert row + "   50:" in lines and lines.count("\n") == 51 + row.count("\n"), options

    line = batches("-v", 1)
    differing = [mark for mark, scale in zip(line[7:43], "|    1    2    3    4    5    6    |") if mark != scale]
    assert line.startswith("    1: ") and differing == ["X"], line
    assert re.fullmatch(r"   0/ 30   0\.00% lost,   0 late +# rx/s, # Mbps D=0\.\d{3}, "
                        r"m/M/a .{7}/.{7}/.{7}, (# ){7} # msec \n", shape(line[43:])), line


@pytest.mark.parametrize("name, separator, option", [
    ("out.csv", ",", "-s"), ("out.txt", "\t", "-Fnight"), ("txt", ",", "-S1")])
def test_results_files(lab, tmp_path, name, separator, option):
    here = lab.namespace()
    lab.monitor(at=here)
    for _ in range(2):
        run = lab.run("--client", LOOPBACK, "-e7", "-E10", "-d200", f"-f{name}", option, at=here, cwd=tmp_path)
    files = [(tmp_path / file).read_text() for file in (name, f"HISTOGRAM_{name}")]
    tables = [[line.split(separator) for line in file.split("\n")] for file in files]
    common = ("Vorn Version,Filename,Protocol,Bad Samples,Packets Lost,Packets Lost(Bad Samples),Batches,Batch Size,"
              "Frame IP Length,usecs between frames,Test Time,Date,Tag").split(",")
    labels = [f"{i:4.1f}%" for i in range(100)] + [f"{99 + i / 10:4.1f}%" for i in range(1, 11)]
    for table, heading in zip(tables, (labels, [str(i) for i in range(1, 101)])):
        assert table[0] == common + heading + [""] and table[3:] == [[""]]
        for row in table[1:3]:
            assert row[:6] == ["5.2", name, "udp", "0", "0", "0"] and row[7:10] == ["10", "1500", "200"]
            assert re.fullmatch(r" *\d+\.\d{3}s", row[10]) and time.strptime(row[11])
            assert row[12] == ("night" if option == "-Fnight" else "NULL")
    closed, shares, counts = run.body.count("Pkts:"), tables[0][2][13:-1], list(map(int, tables[1][2][13:-1]))
    assert tables[0][2][6] == str(closed) and (closed > 7 if option == "-S1" else closed == 7)
    assert len(shares) == 110 and sorted(map(float, shares), reverse=True) == list(map(float, shares))
    assert sum(counts) == closed and counts[0] == 0 and counts[-1] > 0
    assert len(counts) == pytest.approx(float(shares[0]) + 1.5, abs=0.56)  # up to the bin of the highest rate
    last = re.findall(r"mbps(.*)  .{5,} msec", run.body)[-1].split()
    places = [0, 50, 90, 95, 98, 99, 108]  # of seven samples none of these shares falls between two
    assert option == "-S1" or [float(shares[place]) for place in places] == list(map(float, last))


def test_multicast(lab):
    here = lab.namespace()
    client = lab.socket(here)
    here.ip("route add 239.0.0.0/8 dev lo")
    run = lab.monitor("239.1.2.3", at=here)
    assert run.body == ENGAGED.replace("\n", "\nJoining multicast group on interface 0.0.0.0\n")
    client.sendto(message(ECHO_REQUEST), ("239.1.2.3", REMOTE_PORT))
    assert client.recv(100) == message(ECHO_REPLY)
    run.close()
    run = lab.monitor("239.1.2.3", f"-n{LOOPBACK}", at=here)
    assert run.body == ENGAGED + f"Joining multicast group on interface {LOOPBACK}\n" and serves(client) == []
    client.connect(("127.0.0.2", REMOTE_PORT))  # not the address it is bound to
    client.send(b"x")
    with pytest.raises(ConnectionRefusedError):
        client.recv(1)
