# The systemd unit, as far as it can be judged without running it (try_service does that), and the firewall example.
import re, subprocess, sys
from pathlib import Path

TOP = Path(__file__).parents[2]
sys.path.insert(0, str(TOP / "tests/end_to_end"))
from lab import LOOPBACK, REMOTE_PORT, Lab

OUTSIDE = "10.9.9.1"  # an address of this host's own that the firewall example does not know


def test_exposure_is_at_most_two():
    command = ["systemd-analyze", "security", "--offline=yes", "--threshold=20", TOP / "service/vorn-server.service"]
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True)


def test_firewall_example_admits_commanders_only():
    with Lab() as lab:
        here = lab.namespace()
        here.ip(f"address add {OUTSIDE}/32 dev lo")
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
