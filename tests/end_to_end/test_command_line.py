# Every preset line, every refusal with its words, stream and status, and the usage text to the letter.
from lab import *

USAGE = (Path(__file__).parent / "usage.txt").read_text().replace("%s", VORN)


def test_presets_and_their_abbreviations(lab):
    here = lab.namespace()
    for name, line in {
        "--client": "-c -u -s -d0 -l1500 -E50 -e1000",
        "--server": "-M -u -s",
        "--blast": "-U -i -e -l1500 -d0",
        "--discover": "-m -e1 -d0 -a500 -T1000000 -s",
        "--trace": "-e20 -t -d0",
        "--lots": "-e -a10 -l1500 -d0 -A50 -s -T200000",
        "--voice": "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m",
    }.items():
        run = lab.run(name[:3], name[:5], name, "-x", at=here)  # refused before it could run
        assert (run.body, run.status) == (f"Engaging options: {line}\n" * 3, 1)


def test_refusals(lab):
    here = lab.namespace()
    for arguments, words in {
        "": "Error- Expecting a host to send traffic to\n",
        "-x": "", "-d5000 -": "",
        **{f"-{letter}": f"Error- could not parse <-{letter}>\n" for letter in "AEISTadlqr"},
        "-E65537": "ERROR: Max -E is 65536\n",
        "-q256": "ERROR: Max TOS is 255\n",
        "-r0": "ERROR: Min -r is 1\n",
        "-f": "Error: Expecting filename for -f\n",
        "-F": "Error: Expecting tag for -F\n",
        "-fno/such/place": "Error: Bad filename? Permissions?\n",
        "--": "Error: Expecting more than just --\n",
        **dict.fromkeys(("--x", "--clientx"), "Error: unexpected -- option received\n"),
        "0.0.0.0": "Error- could not interpret <0.0.0.0>\n",
        "no-such-host.invalid": "Error- unresolved host <no-such-host.invalid>\n",
        "10.0.0.1 10.0.0.2 10.0.0.3": "Error- unexpected argument <10.0.0.3> \n",
        f"-c -i {LOOPBACK}": "-c and -i incompatible\n",
        **dict.fromkeys((f"-p -c {LOOPBACK}", f"-p -u {LOOPBACK}"), "-u and -p incompatible\n"),
        "-a65535 -l65536 -E65536 -x": "-a# capped at 65534\n-l# capped at 65535\n",
    }.items():
        run = lab.run(*arguments.split(), at=here)
        before, version, usage = run.err.partition("vorn, version 5.2, ")
        assert (before, run.body, run.status) == (words, "", 1), arguments
        assert version and usage.partition("\n")[2] == USAGE + "Cleanup exit\n", arguments


def test_what_is_accepted(lab):
    run, _ = lab.ping({}, HOST, "-a70000", "-A0", "-I7", "-n1.2.3.4", "-n", f"-R{LOOPBACK}", "-Rno.such", "-e1")
    assert shape(run.body) == f"Sending reporting to {LOOPBACK}\n" * 2 + received(0) + summary(1, 1, asked=1)
    assert run.err == f"-a# capped at 65534\nDestination IP = {HOST}\nCleanup exit\n"
    assert shape(lab.run("localhost", "-e", "-e1").body) == received(0, LOOPBACK) + summary(1, 1, asked=1)


def test_detached_monitor_serves(lab):
    here = lab.namespace()
    assert lab.run("-u", "-M", at=here).status == 0
    client, answers = lab.socket(here), []
    client.setblocking(False)

    def answered():
        client.sendto(message(ECHO_REQUEST, sequence=9), (LOOPBACK, LOCAL_PORT))
        try:
            answers.append(header(client.recv(100)))
        except BlockingIOError:
            return False
        return answers == [(ECHO_REPLY, b"test", 0, 9, 20)]

    eventually(answered, "the monitor")


def test_sockets_that_cannot_be_had(lab):
    here = lab.namespace()
    lab.socket(here, LOCAL_PORT)
    run = lab.run("-p", LOOPBACK, at=here)
    assert (run.err, run.status) == (f"Error- could not connect to {LOOPBACK}\nCleanup exit\n", 1)
    lab.socket(here, REMOTE_PORT, socket.SOCK_STREAM)
    for options, before, words in (
        ([], ["setpriv", "--bounding-set=-net_raw"], "Error- Could not allocate socket. (Permissions?)\n"),
        (["-u"], [], "Error- Could not bind in socket.\n"),
        (["-p", "--server"], [], "Error- could not bind TCP socket\n"),
    ):
        run = lab.run(*options, LOOPBACK, at=here, before=before)
        assert (run.err, run.status) == (words + "Cleanup exit\n", 1)
