# UDP and TCP: echo against a monitor, the partner protocol of two copies, and partners that behave badly.
from lab import *

ENGAGED, CLIENT = "Engaging options: -M -u -s\n", "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n"
SURE = "-T2000000000"  # nothing is late, on any machine
SERVER, TO_HERE = (LOOPBACK, REMOTE_PORT), f"Destination IP = {LOOPBACK}\n"


@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_echo_against_a_monitor(lab, carrier):
    here = lab.namespace()
    monitor = lab.monitor(carrier, SURE, at=here)
    for options, count, answered in (("-l0", 3, 3), ("-l1500 -a20 -d0 -e500", 500, 500),
                                     ("-l65535 -d1000 -e20", 20, 20), ("-i -U -e20 -d1000", 20, 0)):
        run = lab.run(carrier, LOOPBACK, *options.split(), SURE, at=here)
        # Over TCP an answer is named after the current host, and the last request has moved that on.
        output = shape(run.body).replace("127.0.0.2", LOOPBACK) if carrier == "-p" else shape(run.body)
        assert output == "".join(received(i, LOOPBACK) for i in range(answered)) + summary(count, answered)
        assert (run.err, run.status) == (TO_HERE + "Cleanup exit\n", 0)
    assert (monitor.body, monitor.err) == (ENGAGED, "Destination IP = 0.0.0.0\n")


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
    assert lines.count("Err- could not send 20 bytes. Sent 0 bytes\n") == 1 and run.status == 0  # no signal ended it
    run = lab.start("-p", "--client", LOOPBACK, "-E5", at=here)
    connection = listener.accept()[0]
    wanted = command(5, udp=0, tcp=1, ip_length=1500)
    assert connection.recv(164, socket.MSG_WAITALL) == message(OPERATION, 0, 0, struct.pack("=I", run.pid), wanted)
    connection.sendall(message(DATA, 0, 0, b"mon1"))
    connection.close()
    assert run.finish().err.endswith("Err: Could not accept connection\nCleanup exit\n") and run.status == 1


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
    here = lab.namespace()
    monitor, run = lab.socket(here, REMOTE_PORT), lab.start("--client", "-e4", "-E5", SURE, LOOPBACK, at=here)
    for number, (packets, _, _) in enumerate(batches):
        operation, commander = monitor.recvfrom(65536)
        assert header(operation) == (OPERATION, b"mon1" if number else struct.pack("=I", run.pid), number, 0, 164)
        run.signal(signal.SIGSTOP)
        run.wait_until("T")  # so that it finds the stream whole, and flushes what is left of it
        for packet in packets:
            kind, sequence = (77, 0) if packet == "junk" else (DATA, packet)
            monitor.sendto(message(kind, number, sequence, b"mon1", bytes(80)), commander)
        run.signal(signal.SIGCONT)
    run.finish()
    assert shape(run.body) == CLIENT + "".join(line for _, line, _ in batches) + "Test complete! Total test time: #s\n"
    assert run.err == TO_HERE + "".join(words for *_, words in batches) + "Cleanup exit\n" and run.status == 0
    assert 2 <= float(re.search(r"test time: +([\d.]+)s", run.body)[1]) < 20  # two of them ended by a second of silence


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
