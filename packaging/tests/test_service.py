"""The systemd unit and the firewall example: tight enough, and wide enough for the program to do its work."""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

TOP = Path(__file__).parents[2]
sys.path.insert(0, str(TOP / "lab"))
from network import Host, standing  # noqa: E402

UNIT = TOP / "service/vorn-server.service"
CONFINED = [sys.executable, str(Path(__file__).with_name("confine.py")), str(UNIT)]
# The confined program runs as a user to whom the directory of the build may be closed, so it is taken from another.
OPEN_DIRECTORY = tempfile.TemporaryDirectory()
os.chmod(OPEN_DIRECTORY.name, 0o755)
VORN = shutil.copy(os.environ.get("VORN", TOP / "build/ci/vorn"), OPEN_DIRECTORY.name)
os.chmod(VORN, 0o755)
PATIENCE = 60  # seconds that only a hanging program exceeds
OUTSIDE = "10.9.9.1"  # an address of this host's own that the firewall example does not know

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="makes network namespaces, so it needs root")


def needs(tool):
    return pytest.mark.skipif(not shutil.which(tool), reason=f"{tool} is not installed")


@pytest.fixture(autouse=True)
def network():
    """A host of the test's own, with nothing but loopback."""
    with standing({"here": Host(addresses=[f"{OUTSIDE}/32"])}) as hosts, hosts["here"] as here:
        yield here


class Monitor:
    def __init__(self, *command):
        self.command = [*command, VORN]
        self.process = None

    def options(self, *options):
        self.command += options
        return self

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        sockets = "tcp" if "-p" in self.command else "udp"
        deadline = time.monotonic() + PATIENCE
        while ":1F44 " not in Path(f"/proc/net/{sockets}").read_text():  # port 8004
            assert self.process.poll() is None, (self.process.returncode, self.process.stderr.read())
            assert time.monotonic() < deadline
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def end(self, number):
        self.process.send_signal(number)
        _, errors = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, errors

    def peak_kilobytes(self):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s+(\d+)", status)[1])


def vorn(*arguments):
    return subprocess.run([VORN, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=PATIENCE, check=False).stdout


@needs("systemd-analyze")
def test_exposure_is_at_most_two():
    subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=20", str(UNIT)], check=True,
                   stdout=subprocess.DEVNULL)


@needs("systemd-analyze")
@pytest.mark.parametrize("carrier", ["-u", "-p"])
def test_monitor_serves_under_the_units_restrictions(carrier):
    options = ["--server"] if carrier == "-u" else ["-p", "--server"]
    with Monitor(*CONFINED).options(*options) as monitor:
        assert ", 5 tx pkts, 5 rx pkts, 0 missing" in vorn(carrier, "-e5", "-d1000", "-T1000000", "127.0.0.1")
        if carrier == "-u":
            shown = vorn("--client", "-e20", "-E200", "-d10", "127.0.0.1")
            assert shown.count("Pkts: 200/200") == 20, shown
            # Forged datagrams of every kind make it complain, not fall.
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                for length in range(200):
                    sender.sendto(bytes([length]) * length, ("127.0.0.1", 8004))
            assert ", 5 tx pkts, 5 rx pkts, 0 missing" in vorn("-u", "-e5", "-d1000", "-T1000000", "127.0.0.1")
            assert monitor.peak_kilobytes() < 32 * 1024  # MemoryMax= leaves as much again to its socket buffers
        status, errors = monitor.end(signal.SIGTERM)
        assert status == -signal.SIGTERM, errors
        assert errors.endswith("Cleanup exit\n")


@needs("systemd-analyze")
def test_what_a_service_has_no_use_for_is_refused():
    attempts = {
        "mount": "ctypes.CDLL(None).mount(0, 0, 0, 0, 0)",
        "a raw socket's family": "socket.socket(socket.AF_PACKET)",
        "netlink": "socket.socket(socket.AF_NETLINK)",
        "a program of its own": "os.fork()",
        "executable memory": "mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC)",
    }
    for what, attempt in attempts.items():
        result = subprocess.run([*CONFINED, "-c", attempt], check=False)
        assert result.returncode == -signal.SIGSYS, what
    subprocess.run([*CONFINED, "-c", "socket.socket(socket.AF_INET)"], check=True)


@needs("nft")
def test_firewall_example_admits_commanders_only():
    for _ in range(2):  # loading it again replaces it
        subprocess.run(["nft", "-f", str(TOP / "service/vorn.nft")], check=True)
    with Monitor().options("--server"):
        ask = ["-u", "-e2", "-d1000", "-T50000"]
        assert "2 rx pkts, 0 missing" in vorn(*ask, "127.0.0.1")
        assert "0 rx pkts, 2 missing" in vorn(*ask, OUTSIDE)  # it reaches itself from that address
        subprocess.run(["nft", "add", "element", "ip", "vorn", "commanders", f"{{ {OUTSIDE} }}"], check=True)
        assert "2 rx pkts, 0 missing" in vorn(*ask, OUTSIDE)
    with Monitor().options("-p", "--server"):
        assert "2 rx pkts, 0 missing" in vorn("-p", *ask[1:], "127.0.0.1")
    # Refused at once, by the firewall: nothing listens any more, and the counters tell who said no.
    subprocess.run(["nft", "flush", "set", "ip", "vorn", "commanders"], check=True)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as service:
        service.bind(("127.0.0.1", 53))
        service.sendto(b"?", ("127.0.0.1", 8004))
    assert "could not connect" in vorn("-p", *ask[1:], OUTSIDE)
    rules = subprocess.run(["nft", "list", "table", "ip", "vorn"], stdout=subprocess.PIPE, text=True, check=True).stdout
    packets = [int(count) for count in re.findall(r"counter packets (\d+)", rules)]
    assert packets == [1, 2, 1], rules
