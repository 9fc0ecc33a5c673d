# Echo mode over ICMP: what each kind of answer, or its absence, does to the lines, the counts and the pacing.
from lab import *

LOST, SURE = [], "-T9000000"  # an answer that never comes; a time-out that no slow machine reaches


def test_output_and_frames_of_a_plain_ping(lab):
    for option, length in (("-l0", 8), ("-l29", 9), ("-l1499", 1479), ("-q0x20", 8)):
        run, peer = lab.ping({}, HOST, "-d5000", SURE, option)
        assert shape(run.body) == "".join(map(received, range(3))) + summary(3, 3)
        assert (run.err, run.status) == (f"Destination IP = {HOST}\nCleanup exit\n", 0)
        for sequence, packet in enumerate(peer.packets):
            assert (packet.destination, packet.type, packet.code) == (HOST, 8, 0)
            assert packet.message[4:8] == struct.pack("=H", run.pid & 0xFFFF) + struct.pack(">H", sequence)
            assert packet.message[8:] == bytes(length - 8) and checksum(packet.message) == 0
            assert packet.tos == (0x20 if option == "-q0x20" else 0)
    run = lab.run(LOOPBACK, "-l65535", "-d0", SURE)  # our own kernel answers, in one frame as large as any
    assert shape(run.body) == "".join(received(i, LOOPBACK) for i in range(3)) + summary(3, 3)


# A window of one: request 2 goes out when 1 is settled, so what answers 2 ahead of its own reply is late for 1.
# A row: the answers to request 1, those ahead of the reply to 2, options, lines between requests 0 and 2, errors.
BAD_CHECKSUM = "Error: Received ICMP message with bad ICMP checksum\n"


@pytest.mark.parametrize("answers, ahead, options, lines, errors", [
    pytest.param(LOST, [], [], timed_out(1), "", id="lost"),
    pytest.param(LOST, [reply(sequence=1)], [], timed_out(1) + unexpected(1), "", id="late"),
    pytest.param(LOST, [reply(sequence=1)], ["-m"], "", "", id="late, no time-out lines"),
    pytest.param([reply()], [reply(sequence=1)], [], received(1) + unexpected(1), "", id="twice"),
    pytest.param([reply(sequence=700), reply()], [], [], unexpected(700) + received(1), "", id="never asked for"),
    pytest.param([reply(spoil=0x0100)], [], [], timed_out(1), BAD_CHECKSUM, id="one bit wrong"),
    pytest.param([reply(spoil=1), reply()], [], [], received(1), BAD_CHECKSUM, id="wrong, then right"),
    pytest.param([reply(identifier=0)], [], [], timed_out(1), "", id="another identifier"),
    pytest.param([reply(options=b"\x01" * 40)], [], [], received(1), "", id="IP options"),
    pytest.param([reply(source="10.9.8.7")], [], [], received(1, "10.9.8.7"), "", id="another host"),
    pytest.param([reply(length=8)], [], [], received(1), "", id="payload cut off"),
    pytest.param([reply(length=7)], [], [], timed_out(1), "", id="shorter than its header"),
])
def test_odd_answers(lab, answers, ahead, options, lines, errors):
    lost = "TIMEOUT" in lines or "-m" in options
    patience = "-T400000" if lost else SURE
    run, _ = lab.ping({1: answers, 2: [*ahead, reply()]}, HOST, "-l40", "-d5000", patience, *options)
    assert shape(run.body) == received(0) + lines + received(2) + summary(3, 2 if lost else 3)
    assert all(float(time) >= 0.405 for time in re.findall(r"TIMEOUT in +([\d.]+)s", run.body))
    assert (run.err, run.status) == (f"Destination IP = {HOST}\n{errors}Cleanup exit\n", 0)


def test_answers_out_of_order_overtake_on_one_host_but_not_in_a_sweep(lab):
    hosts, options = [HOST, HOST, "10.9.0.3", "10.9.0.3"], ("-a4", "-d2000", SURE)
    script = {0: LOST, 1: LOST, 2: LOST, 3: [reply(sequence=i, source=hosts[i]) for i in (2, 1, 0, 3)]}
    run, _ = lab.ping(script, HOST, "-e4", *options)
    assert shape(run.body) == (timed_out(0) + timed_out(1) + received(2, hosts[2]) + unexpected(1) + unexpected(0)
                               + received(3, hosts[3]) + summary(4, 2))
    run, _ = lab.ping(script, HOST, hosts[3], "-e2", *options)
    assert shape(run.body) == "".join(map(received, range(4), hosts)) + summary(4, 4)


def test_icmp_of_every_type_and_errors_of_every_length(lab):
    invalid = [kind for kind in range(256) if kind in (1, 2, 6, 7) or kind > 18]
    run, _ = lab.ping({
        0: [error(kind) for kind in range(1, 256) if kind not in (3, 11)] + [reply()],
        1: [error(kind, length=length) for kind in (3, 11) for length in range(4, 36)] + [reply()],
        2: [error(11, patch=patch) for patch in ({9: 17}, {0: 0x46}, {24: 1, 25: 1}, {26: 9})] + [reply()],
        3: [error(11, length=36)],
        4: [error(3, length=36, options=b"\x01" * 4)],
        5: [error(11, source="10.9.1.1"), error(11)],  # the second finds nothing outstanding: no word
    }, HOST, "-e7", "-l60", "-d1000", SURE)
    assert shape(run.body) == (
        received(0) + received(1) + received(2) + received(3, "10.9.0.99", "TTL Exceeded")
        + received(4, "10.9.0.99", "Destination Unreachable") + received(5, "10.9.1.1", "TTL Exceeded") + received(6)
        + summary(7, 7))
    assert run.err.count("Error: Inavlid ICMP type received\n") == len(invalid) == run.err.count("\n") - 2


def test_window_burst_pace_and_debug_lines(lab):
    def first_pass(run):
        return run.body.split("Select for")[0].count("Tx one")

    for window, count in ((5, 5), (400, 20)):  # the window cuts the burst, or the count does
        run, _ = lab.ping(lambda request: [], HOST, f"-a{window}", "-e20", "-d0", "-T100000", "-D")
        assert first_pass(run) == count and run.body.count("TIMEOUT") == 20
    run, _ = lab.ping({}, HOST, "-a400", "-e20", "-d2000", "-D")
    assert first_pass(run) == 5  # ten milliseconds' worth
    run, _ = lab.ping({}, HOST, "-e4", "-a2", "-r20", "-D", "-s", SURE)
    assert float(re.search(r"In +([\d.]+)s, 4 tx", run.body)[1]) >= 0.139  # the first packet brings 10 ms of credit
    line = r"^\d+\.\d{6}: Tx one, process_id = (.{8}), \*current_tx__packet = (\d+), batch = 0$"
    assert re.findall(line, run.body, re.M) == [(f"{run.pid:08x}", str(i)) for i in range(4)]
    waits = re.findall(r"^Select for (.*)$", run.body, re.M)
    assert all(re.fullmatch(r"\d\.\d{6}", wait) for wait in waits) and waits[0] < "0.050001"


def test_sweep(lab):
    hosts = ["10.9.0.254", "10.9.0.255", "10.9.1.0", "10.9.1.1"]

    def only_even(request):
        return [reply()(request)] if request.destination in hosts[::2] else []

    run, peer = lab.ping(only_even, hosts[0], hosts[-1], "-e2", "-d5000", "-T200000")
    assert [packet.destination for packet in peer.packets] == [host for host in hosts for _ in range(2)]
    lines = [(received, timed_out)[i // 2 % 2](i, hosts[i // 2]) for i in range(8)]
    assert shape(run.body) == "".join(lines) + summary(8, 4)
    assert run.err == f"Start IP= {hosts[0]}  End IP= {hosts[-1]}\nCleanup exit\n"
    run, peer = lab.ping(only_even, "10.9.0.100", "10.9.1.99", "--discover")
    assert shape(run.body) == ("Engaging options: -m -e1 -d0 -a500 -T1000000 -s\n" + received(154, hosts[0])
                               + received(156, hosts[2]) + summary(256, 2))


def test_one_request_and_sequence_numbers_beyond_sixteen_bits(lab):
    for script, options, output in (({}, [SURE], received(0) + summary(1, 1, asked=1)), ({0: LOST}, ["-m"], "")):
        run, _ = lab.ping(script, HOST, "-e1", *options)
        assert shape(run.body) == output
    run = lab.run(LOOPBACK, "-e66000", "-d0", "-a50", SURE, "-s")
    assert shape(run.body) == summary(66000, 66000)
