# Where the output goes: live, in order, into odd places, and whole rows only.
from lab import *

CLIENT = "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n"
SHORT = ("--client", LOOPBACK, "-e2", "-E3", "-d1000", "-T2000000000")
TO_HERE, END = f"Destination IP = {LOOPBACK}\n", "Cleanup exit\n"


def test_output_is_live_and_streams_keep_their_order(lab):
    for merged in (False, True):
        run, _ = lab.pinging({}, 1, HOST, "-d90000000", "-T90000000", merged=merged)
        run.wait_for(f" from {HOST}\n")  # the program now waits for a minute and a half, and all of it is out
        assert (shape(run.body), run.err) == ((f"Destination IP = {HOST}\n" + received(0), "") if merged else
                                              (received(0), f"Destination IP = {HOST}\n"))
    script = {0: [error(2), reply()], 1: [error(2), reply(spoil=1), reply()]}
    invalid = "Error: Inavlid ICMP type received\n"
    run, _ = lab.ping(script, HOST, "-e2", "-d1000", "-T9000000", f"-R{LOOPBACK}", "-a70000", merged=True)
    assert shape(run.body) == (
        f"Sending reporting to {LOOPBACK}\n-a# capped at 65534\nDestination IP = {HOST}\n{invalid}" + received(0)
        + f"{invalid}Error: Received ICMP message with bad ICMP checksum\n" + received(1) + summary(2, 2) + END)
    run = lab.run("--trace", "-E65537", merged=True)
    assert run.body.startswith("Engaging options: -e20 -t -d0\nERROR: Max -E is 65536\nvorn, version 5.2, ")


@pytest.mark.parametrize("closed", ["0", "1", "2", "0 1", "0 2", "1 2", "0 1 2"])
def test_closed_descriptors(lab, tmp_path, closed):
    here = lab.namespace()
    lab.monitor(at=here)
    closing = ["sh", "-c", "exec " + " ".join(f"{number}>&-" for number in closed.split()) + '; exec "$@"', "sh"]
    run = lab.run(*SHORT, "-fout.csv", at=here, before=closing, cwd=tmp_path)
    assert run.out == "" if "1" in closed else run.body.startswith(CLIENT) and "Test complete!" in run.body
    assert (run.err, run.status) == ("" if "2" in closed else TO_HERE + END, 0)
    for name in ("out.csv", "HISTOGRAM_out.csv"):  # they must not have taken the console's place
        table = (tmp_path / name).read_text()
        assert re.fullmatch(r"Vorn Version,[^\n]*\n5\.2,[^\n]*,\n", table), table
    run = lab.run(LOOPBACK, "-e2", "-d1000", "-T9000000", at=here, before=closing)  # nor has a socket
    lines = received(0, LOOPBACK) + received(1, LOOPBACK) + summary(2, 2)
    assert run.status == 0 and ("1" in closed or shape(run.body) == lines)


def test_full_disk_and_odd_results_files(lab, tmp_path):
    here = lab.namespace()
    lab.monitor(at=here)
    (tmp_path / "out").mkdir()
    os.mkfifo(tmp_path / "fifo")

    def client(name, **options):
        return lab.start(*SHORT, "-f" + name, at=here, cwd=tmp_path, **options).finish(20)

    run = client("/dev/full")
    assert run.err == (f"{TO_HERE}Error: could not write results file /dev/full\n"
                       f"Error: could not open histogram file HISTOGRAM_/dev/full\n{END}") and run.status == 0
    run = client("out")
    assert run.err.startswith("Error: Bad filename? Permissions?\nvorn, version 5.2, ") and run.status == 1
    run = client("out/row.csv")
    assert run.err == f"{TO_HERE}Error: could not open histogram file HISTOGRAM_out/row.csv\n{END}" and run.status == 0
    assert len((tmp_path / "out/row.csv").read_text().splitlines()) == 2
    client("fifo")  # without a reader it may refuse, but it may not hang
    reader = os.open(tmp_path / "fifo", os.O_RDONLY | os.O_NONBLOCK)
    assert client("fifo").status == 0 and re.fullmatch(r"(5\.2,fifo,[^\n]*,\n)?", os.read(reader, 65536).decode())
    os.close(reader)
    with open("/dev/full", "wb") as full:
        run = client("whole.csv", stdout=full)
    assert run.err.endswith(END) and (tmp_path / "whole.csv").read_text().count("\n") == 2 and run.status in (0, 1)

    there = lab.namespace()
    monitor = lab.socket(there, REMOTE_PORT)
    run = lab.start("--client", "-e1", "-E2", "-fout/row.csv", LOOPBACK, at=there, cwd=tmp_path)
    _, commander = monitor.recvfrom(1000)
    shutil.rmtree(tmp_path / "out")
    for sequence in (0, 1):
        monitor.sendto(message(DATA, 0, sequence), commander)
    assert run.finish().status == 0 and run.body.count("Test complete!") == 1
    assert run.err.endswith(f"Error: could not open histogram file HISTOGRAM_out/row.csv\n{END}")


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
        assert all(row.startswith("5.2,out.csv,udp,") and row.count(",") >= least and row.endswith(",") for row in rows)


def test_datagrams_lost_in_our_own_buffer_are_told(lab):
    here = lab.namespace()
    monitor = lab.socket(here, REMOTE_PORT)
    run = lab.start("--client", "-e1", "-E20000", "-T2000000000", LOOPBACK, at=here)
    _, commander = monitor.recvfrom(1000)
    run.freeze()
    for sequence in range(20000):
        monitor.sendto(message(DATA, 0, sequence, body=bytes(1452)), commander)
    run.process.send_signal(signal.SIGCONT)
    assert header(monitor.recv(1000)).type == OPERATION  # the stream broke off, so the batch is repeated
    run.process.send_signal(signal.SIGINT)
    words = r"\nNote: (\d+) datagrams were dropped by this host's receive buffer \((\d+) bytes\)\nCleanup exit\n$"
    note = re.search(words, run.finish(20).err)
    arrived = re.search(r"Pkts: +(\d+)/20000", run.body)
    assert note and int(note[1]) == 20000 - int(arrived[1]) and int(note[2]) >= 1048576, run.err
