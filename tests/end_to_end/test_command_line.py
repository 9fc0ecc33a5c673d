"""Every preset line, every refusal with its words, stream and status, and the usage text to the letter."""
import socket
from pathlib import Path

import pytest

from lab import HOST, LOOPBACK, VORN, header, message, received, shape, summary

USAGE = (Path(__file__).parent / "usage.txt").read_text().replace("%s", VORN)
CANNOT_PARSE = {f"-{letter}": f"Error- could not parse <-{letter}>\n" for letter in "AEISTadlqr"}


def test_presets_and_their_abbreviations(lab):
    here = lab.namespace()
    for names, line in (
        (("--client", "--c"), "-c -u -s -d0 -l1500 -E50 -e1000"),
        (("--server", "--se"), "-M -u -s"),
        (("--blast", "--b"), "-U -i -e -l1500 -d0"),
        (("--discover", "--d"), "-m -e1 -d0 -a500 -T1000000 -s"),
        (("--trace", "--t"), "-e20 -t -d0"),
        (("--lots", "--lo"), "-e -a10 -l1500 -d0 -A50 -s -T200000"),
        (("--voice", "--v"), "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m"),
    ):
        for name in names:
            run = lab.run(name, "-x", at=here)  # refused before it could run
            assert (run.body, run.status) == (f"Engaging options: {line}\n", 1)


def test_refusals(lab):
    here = lab.namespace()
    refusals = {
        "": "Error- Expecting a host to send traffic to\n",
        "-x": "",
        "-": "",
        "-d5000 -": "",
        **CANNOT_PARSE,
        "-dx": "Error- could not parse <-dx>\n",
        "-E65537": "ERROR: Max -E is 65536\n",
        "-q256": "ERROR: Max TOS is 255\n",
        "-r0": "ERROR: Min -r is 1\n",
        "-f": "Error: Expecting filename for -f\n",
        "-F": "Error: Expecting tag for -F\n",
        "-fno/such/place": "Error: Bad filename? Permissions?\n",
        "--": "Error: Expecting more than just --\n",
        "--x": "Error: unexpected -- option received\n",
        "--clientx": "Error: unexpected -- option received\n",
        "0.0.0.0": "Error- could not interpret <0.0.0.0>\n",
        "no-such-host.invalid": "Error- unresolved host <no-such-host.invalid>\n",
        "10.0.0.1 10.0.0.2 10.0.0.3": "Error- unexpected argument <10.0.0.3> \n",
        f"-c -i {LOOPBACK}": "-c and -i incompatible\n",
        f"-p -c {LOOPBACK}": "-u and -p incompatible\n",
        f"-p -u {LOOPBACK}": "-u and -p incompatible\n",
        "-u -p -i -e": "Error- Expecting a host to send traffic to\n",
        "-a65535 -l65536 -x": "-a# capped at 65534\n-l# capped at 65535\n",
    }
    for arguments, words in refusals.items():
        run = lab.run(*arguments.split(), at=here)
        before, version, usage = run.err.partition("vorn, version 5.2, ")
        assert (before, run.body, run.status) == (words, "", 1), arguments
        assert version and usage.partition("\n")[2] == USAGE + "Cleanup exit\n", arguments


def test_what_is_accepted_with_a_word(lab):
    run, peer = lab.ping({}, HOST, "-a70000", "-A0", "-I7", "-e1", "-n1.2.3.4", "-n", f"-R{LOOPBACK}", "-Rno.such", "-T5000000")
    assert shape(run.body) == f"Sending reporting to {LOOPBACK}\n" * 2 + received(0) + summary(1, 1)
    assert run.err == f"-a# capped at 65534\nDestination IP = {HOST}\nCleanup exit\n"
    run = lab.run("localhost", "-e2", "-e1", "-d0", "-e1", "-T5000000")
    assert shape(run.body) == received(0, LOOPBACK) + summary(1, 1)


def test_detached_monitor_serves(lab):
    here = lab.namespace()
    assert lab.run("-u", "-M", at=here).status == 0
    client = lab.socket(here, 8004)  # where an unpresented monitor, bound to 8003, sends its own first packet
    client.settimeout(0.2)
    for _ in range(100):
        client.sendto(message(1, sequence=9), (LOOPBACK, 8003))
        try:
            answer = client.recv(65536)
        except (TimeoutError, ConnectionRefusedError):
            continue
        if header(answer).type == 2:
            break
    assert header(answer) == (2, b"test", 0, 9, 20)


@pytest.mark.parametrize("options, words", [
    ([], "Error- Could not allocate socket. (Permissions?)\n"),
    (["-u"], "Error- Could not bind in socket.\n"),
    (["-p"], f"Error- could not connect to {LOOPBACK}\n"),
    (["-p", "--server"], "Error- could not bind TCP socket\n"),
])
def test_sockets_that_cannot_be_had(lab, options, words):
    here = lab.namespace()
    lab.socket(here, 8003)
    listening = lab.socket(here, 8004, socket.SOCK_STREAM)
    if "--server" in options:
        listening.listen()
    before = [] if options else ["setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw"]
    run = lab.run(*options, LOOPBACK, at=here, before=before)
    assert (run.err, run.status) == (words + "Cleanup exit\n", 1)
