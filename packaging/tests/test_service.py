# The systemd unit and the firewall example: tight enough, and wide enough for the program to do its work.
import mmap, os, re, shutil, signal, socket, subprocess, sys, tempfile
from pathlib import Path

import pytest
from confine import restrictions_of

TOP = Path(__file__).parents[2]
sys.path.insert(0, str(TOP / "tests/end_to_end"))
from lab import LIBC, LOOPBACK, REMOTE_PORT, VORN, Lab

UNIT = TOP / "service/vorn-server.service"
NOBODY = {"user": 65534, "group": 65534, "extra_groups": []}
OUTSIDE = "10.9.9.1"  # an address of this host's own that the firewall example does not know


@pytest.fixture
def lab():
    with Lab() as laboratory:
        yield laboratory


@pytest.fixture
def here(lab):
    host = lab.namespace()
    host.ip(f"address add {OUTSIDE}/32 dev lo")
    return host


# The program where everybody can read it: the directory of the build may be closed to others.
@pytest.fixture
def open_vorn():
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        copy = shutil.copy(VORN, directory)
        os.chmod(copy, 0o755)
        yield copy


def test_exposure_is_at_most_two():
    subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=20", str(UNIT)], check=True,
                   stdout=subprocess.DEVNULL)


@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_monitor_serves_under_the_units_restrictions(lab, here, open_vorn, carrier):
    monitor = lab.monitor(carrier, at=here, program=open_vorn, preexec_fn=restrictions_of(UNIT), **NOBODY)

    def answers():
        asked = lab.run(carrier, "-e5", "-d1000", "-T1000000", LOOPBACK, at=here)
        return ", 5 tx pkts, 5 rx pkts, 0 missing" in asked.out

    assert answers()
    if carrier == "-u":
        batches = lab.run("--client", "-e20", "-E200", "-d10", LOOPBACK, at=here).out
        assert batches.count("Pkts: 200/200") == 20, batches
        # Forged datagrams of every kind make it complain, not fall.
        sender = lab.socket(here)
        for length in range(200):
            sender.sendto(bytes([length]) * length, (LOOPBACK, REMOTE_PORT))
        assert answers()
        peak_kilobytes = int(re.search(r"VmHWM:\s+(\d+)", monitor.proc("status"))[1])
        assert peak_kilobytes < 32 * 1024  # MemoryMax= leaves as much again to its socket buffers
    monitor.signal(signal.SIGTERM)
    assert monitor.finish().status == -signal.SIGTERM, monitor.err
    assert monitor.err.endswith("Cleanup exit\n")


def test_what_a_service_has_no_use_for_is_refused():
    restrict = restrictions_of(UNIT)

    def status_of_child(attempt):
        return subprocess.run(["true"], preexec_fn=lambda: (restrict(), attempt()), **NOBODY).returncode

    attempts = {
        "mount": lambda: LIBC.mount(0, 0, 0, 0, 0),
        "a raw socket's family": lambda: socket.socket(socket.AF_PACKET),
        "netlink": lambda: socket.socket(socket.AF_NETLINK),
        "a program of its own": os.fork,
        "executable memory": lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC),
    }
    for what, attempt in attempts.items():
        assert status_of_child(attempt) == -signal.SIGSYS, what
    assert status_of_child(lambda: socket.socket(socket.AF_INET)) == 0


def test_firewall_example_admits_commanders_only(lab, here):
    for _ in range(2):  # loading it again replaces it
        here.run(["nft", "-f", TOP / "service/vorn.nft"], check=True)
    for carrier in ("-u", "-p"):
        lab.monitor(carrier, at=here)

    def ask(carrier, address):
        return lab.run(carrier, "-e2", "-d1000", "-T300000", address, at=here, merged=True).out

    assert "2 rx pkts, 0 missing" in ask("-u", LOOPBACK)
    assert "2 rx pkts, 0 missing" in ask("-p", LOOPBACK)
    assert "0 rx pkts, 2 missing" in ask("-u", OUTSIDE)  # it reaches itself from that address
    assert "could not connect" in ask("-p", OUTSIDE)
    lab.socket(here, port=53).sendto(b"?", (LOOPBACK, REMOTE_PORT))
    rules = here.run(["nft", "list", "table", "ip", "vorn"], stdout=subprocess.PIPE, text=True, check=True).stdout
    refused = [int(count) for count in re.findall(r"counter packets (\d+)", rules)]
    assert refused == [1, 2, 1], rules  # from a service, from others over UDP, from others over TCP
    here.run(["nft", "add", "element", "ip", "vorn", "commanders", f"{{ {OUTSIDE} }}"], check=True)
    assert "2 rx pkts, 0 missing" in ask("-u", OUTSIDE)
    assert "2 rx pkts, 0 missing" in ask("-p", OUTSIDE)
