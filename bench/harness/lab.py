"""Two hosts and the link between them, made for the benchmark and always removed."""

import contextlib
import re
import subprocess

from network import End, Host, Link, standing

NEAR_ADDRESS, FAR_ADDRESS, LOOPBACK_ADDRESS = "10.77.0.1", "10.77.0.2", "127.0.0.1"
DEVICE = "bench0"  # on both hosts
NEAR_CPU, FAR_CPU = 0, 1

# Ranges behind the far end. The far end owns every address of the first two and the first fifty of the third; it
# forwards nothing, so what is sent to the rest of the third gets no answer at all.
WIDE_RANGE = ("10.9.0.1", "10.9.255.254")
FULL_RANGE = ("10.10.1.1", "10.10.1.254")
SPARSE_RANGE = ("10.10.2.1", "10.10.2.254")
SPARSE_HOSTS = 50
FAR_OWNED = ["10.9.0.0/16", "10.10.1.0/24"] + [f"10.10.2.{n}/32" for n in range(1, SPARSE_HOSTS + 1)]

WITHOUT_IPV6 = {f"ipv6/conf/{scope}/disable_ipv6": 1 for scope in ("all", "default")}
HOSTS = {
    "near": Host(routes=[f"{network} via {FAR_ADDRESS}" for network in ("10.9.0.0/16", "10.10.0.0/16")],
                 settings=WITHOUT_IPV6),
    "far": Host(routes=[f"local {network} dev lo" for network in FAR_OWNED], settings=WITHOUT_IPV6),
}
LINKS = [Link(End("near", [f"{NEAR_ADDRESS}/24"], DEVICE), End("far", [f"{FAR_ADDRESS}/24"], DEVICE))]


class Lab:
    def __init__(self, network):
        self.near, self.far = network["near"], network["far"]
        self.answering_cpu = None
        for host, other, address in ((self.near, self.far, FAR_ADDRESS), (self.far, self.near, NEAR_ADDRESS)):
            shown = other.run(["ip", "link", "show", DEVICE], check=True, capture_output=True, text=True).stdout
            hardware = re.search(r"link/ether (\S+)", shown).group(1)  # so that neither has to ask
            host.ip(f"neigh replace {address} lladdr {hardware} dev {DEVICE} nud permanent")

    def answer_from_cpu(self, cpu):
        """Lets the far end handle what arrives on `cpu`; None: in the sender's own system call."""
        if cpu == self.answering_cpu:
            return
        self.answering_cpu = cpu
        mask = 0 if cpu is None else 1 << cpu
        # /sys shows the devices of the host that mounted it.
        steer = f"mount -t sysfs sysfs /sys && echo {mask:x} > /sys/class/net/{DEVICE}/queues/rx-0/rps_cpus"
        self.far.run(["unshare", "--mount", "sh", "-c", steer], check=True)

    def arrived(self):
        """Packets that the far end's IP layer has received. Those that crossed the device as one frame, to be split by
        it, count one each here, as they do nowhere else. Marked ones (ECN) would not: nobody sends any."""
        return self.count("IpExt", "InNoECTPkts", "netstat")

    def count(self, protocol, field, file="snmp"):
        names, values = [line.split() for line in self.far.read(file).splitlines() if line.startswith(protocol + ":")]
        return int(values[names.index(field)])

    @contextlib.contextmanager
    def without_checksum_offload(self):
        """The near device wants whole packets with finished checksums for the length of a `with`."""
        switch = ["ethtool", "-K", DEVICE, "tx"]
        self.near.run([*switch, "off"], check=True, stdout=subprocess.DEVNULL)
        try:
            yield
        finally:
            self.near.run([*switch, "on"], check=True, stdout=subprocess.DEVNULL)

    @contextlib.contextmanager
    def losing(self, every):
        """Of what the far end sends, every so many-th frame vanishes before it reaches the near device."""
        rules = f"""table netdev lossy {{
            chain out {{
                type filter hook egress device "{DEVICE}" priority 0;
                numgen inc mod {every} {every // 2} drop
            }}
        }}"""
        self.far.run(["nft", "-f", "-"], input=rules, text=True, check=True)
        try:
            yield
        finally:
            self.far.run(["nft", "delete", "table", "netdev", "lossy"], check=True)


@contextlib.contextmanager
def standing_lab():
    with standing(HOSTS, LINKS) as network:
        yield Lab(network)
