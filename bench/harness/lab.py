"""Two hosts and the link between them, made for the benchmark and always removed."""

import contextlib
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))

from network import End, Host, Link, standing  # noqa: E402  (the path comes first)

NEAR_ADDRESS = "10.77.0.1"
FAR_ADDRESS = "10.77.0.2"
LOOPBACK_ADDRESS = "127.0.0.1"
LINK = "bench0"  # the device name on both hosts

# Ranges behind the far end. The far end owns every address of the first two and the first fifty of the third; it
# forwards nothing, so what is sent to the rest of the third gets no answer at all.
WIDE_RANGE = ("10.9.0.1", "10.9.255.254")
FULL_RANGE = ("10.10.1.1", "10.10.1.254")
SPARSE_RANGE = ("10.10.2.1", "10.10.2.254")
SPARSE_HOSTS = 50
FAR_OWNED = ["10.9.0.0/16", "10.10.1.0/24"] + [f"10.10.2.{n}/32" for n in range(1, SPARSE_HOSTS + 1)]
NEAR_ROUTES = ["10.9.0.0/16", "10.10.0.0/16"]

WITHOUT_IPV6 = {f"ipv6/conf/{scope}/disable_ipv6": 1 for scope in ("all", "default")}
HOSTS = {
    "near": Host(routes=[f"{network} via {FAR_ADDRESS}" for network in NEAR_ROUTES], settings=WITHOUT_IPV6),
    "far": Host(routes=[f"local {network} dev lo" for network in FAR_OWNED], settings=WITHOUT_IPV6),
}
LINKS = [Link(End("near", [f"{NEAR_ADDRESS}/24"], LINK), End("far", [f"{FAR_ADDRESS}/24"], LINK))]


class Lab:
    """Use as a context: `with Lab("a") as lab`. Several may stand at once; the name is for the reader."""

    def __init__(self, _name):
        self.answering_cpu = None

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            self.near, self.far = stack.enter_context(standing(HOSTS, LINKS)).values()
            self._know_each_other()
            self.far_pid = self.far.start(["sleep", "infinity"]).pid  # the kernel shows what it counts by process id
            self.stack = stack.pop_all()
        return self

    def __exit__(self, *exception):
        self.stack.__exit__(*exception)

    def command(self, namespace, argv, cpu=None):
        """`argv` as run inside a namespace. Both prefixes execute in place, so the process id is the program's own."""
        pinned = ["taskset", "-c", str(cpu)] if cpu is not None else []
        return namespace.command([*pinned, *argv])

    def answer_from_cpu(self, cpu):
        """Lets the far end handle what arrives on `cpu`; None: in the sender's own system call."""
        if cpu == self.answering_cpu:
            return
        self.answering_cpu = cpu
        mask = 0 if cpu is None else 1 << cpu
        # /sys shows the devices of the host that mounted it.
        steer = f"mount -t sysfs sysfs /sys && echo {mask:x} > /sys/class/net/{LINK}/queues/rx-0/rps_cpus"
        self.far.run(["unshare", "--mount", "sh", "-c", steer], check=True)

    def counters(self):
        """What the kernel has counted so far: packets that left the near end, reached the far end, were dropped."""
        near, far = (_device(namespace) for namespace in (self.near, self.far))
        return {
            "sent": near["sent"] + near["send_drops"],
            "arrived": self._snmp("Ip", "InReceives"),
            "answers_discarded": self._snmp("Ip", "OutDiscards"),
            "queue_drops": self._snmp("Udp", "RcvbufErrors") + far["receive_drops"],
        }

    def far_port_is_bound(self, port):
        """Whether any program at the far end has the UDP or TCP port."""
        return any(self.far.has_port(port, table) for table in ("udp", "tcp", "tcp6"))

    def _know_each_other(self):
        """Neither has to ask for the other's hardware address."""
        for namespace, other, address in ((self.near, self.far, FAR_ADDRESS), (self.far, self.near, NEAR_ADDRESS)):
            shown = other.run(["ip", "link", "show", LINK], check=True, capture_output=True, text=True).stdout
            hardware = re.search(r"link/ether (\S+)", shown).group(1)
            namespace.ip(f"neigh replace {address} lladdr {hardware} dev {LINK} nud permanent")

    def _snmp(self, protocol, field):
        names, values = [line.split() for line in self.far.read("snmp").splitlines() if line.startswith(protocol + ":")]
        return int(values[names.index(field)])


def _device(namespace):
    line = next(line for line in namespace.read("dev").splitlines() if line.strip().startswith(LINK + ":"))
    numbers = [int(word) for word in line.split(":")[1].split()]
    return {"receive_drops": numbers[3], "sent": numbers[9], "send_drops": numbers[11]}
