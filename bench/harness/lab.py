"""Two network namespaces joined by a veth pair, made for the benchmark and always removed."""

import os
import re
import subprocess
import time

NEAR_ADDRESS = "10.77.0.1"
FAR_ADDRESS = "10.77.0.2"
LOOPBACK_ADDRESS = "127.0.0.1"
LINK = "bench0"  # the device name in both namespaces

# Ranges behind the far end. The far end owns every address of the first two and the first fifty of the third; it
# forwards nothing, so what is sent to the rest of the third gets no answer at all.
WIDE_RANGE = ("10.9.0.1", "10.9.255.254")
FULL_RANGE = ("10.10.1.1", "10.10.1.254")
SPARSE_RANGE = ("10.10.2.1", "10.10.2.254")
SPARSE_HOSTS = 50
FAR_OWNED = ["10.9.0.0/16", "10.10.1.0/24"] + [f"10.10.2.{n}/32" for n in range(1, SPARSE_HOSTS + 1)]
NEAR_ROUTES = ["10.9.0.0/16", "10.10.0.0/16"]


def ip(*words):
    subprocess.run(["ip", *words], check=True)


class Lab:
    """Use as a context: `with Lab("a") as lab`. Names carry the process id, so that two benchmarks can run at once."""

    def __init__(self, name):
        self.near = f"bench-{os.getpid()}-{name}-near"
        self.far = f"bench-{os.getpid()}-{name}-far"
        self.helpers = []
        self.answering_cpu = None

    def __enter__(self):
        try:
            self._make()
        except BaseException:
            self._remove()
            raise
        return self

    def __exit__(self, *_):
        self._remove()

    def command(self, namespace, argv, cpu=None):
        """`argv` as run inside a namespace. Both prefixes execute in place, so the process id is the program's own."""
        pinned = ["taskset", "-c", str(cpu)] if cpu is not None else []
        return ["ip", "netns", "exec", namespace, *pinned, *argv]

    def write(self, namespace, path, value):
        subprocess.run(self.command(namespace, ["sh", "-c", f"echo {value} > {path}"]), check=True)

    def answer_from_cpu(self, cpu):
        """Lets the far end handle what arrives on `cpu`; None: in the sender's own system call."""
        if cpu == self.answering_cpu:
            return
        self.answering_cpu = cpu
        mask = 0 if cpu is None else 1 << cpu
        self.write(self.far, f"/sys/class/net/{LINK}/queues/rx-0/rps_cpus", f"{mask:x}")

    def counters(self):
        """What the kernel has counted so far: packets that left the near end, reached the far end, were dropped."""
        near, far = (self._device(pid) for pid in (self.near_pid, self.far_pid))
        return {
            "sent": near["sent"] + near["send_drops"],
            "arrived": self._snmp("Ip", "InReceives"),
            "answers_discarded": self._snmp("Ip", "OutDiscards"),
            "queue_drops": self._snmp("Udp", "RcvbufErrors") + far["receive_drops"],
        }

    def far_port_is_bound(self, port):
        """Whether any program at the far end has the UDP or TCP port."""
        for protocol in ("udp", "tcp", "tcp6"):
            with open(f"/proc/{self.far_pid}/net/{protocol}", encoding="ascii") as table:
                if f":{port:04X} " in table.read():
                    return True
        return False

    def _make(self):
        for namespace in (self.near, self.far):
            ip("netns", "add", namespace)
            for scope in ("all", "default"):
                self.write(namespace, f"/proc/sys/net/ipv6/conf/{scope}/disable_ipv6", 1)
        ip("-n", self.near, "link", "add", LINK, "type", "veth", "peer", "name", LINK, "netns", self.far)
        for namespace, address in ((self.near, NEAR_ADDRESS), (self.far, FAR_ADDRESS)):
            ip("-n", namespace, "address", "add", f"{address}/24", "dev", LINK)
            ip("-n", namespace, "link", "set", "lo", "up")
            ip("-n", namespace, "link", "set", LINK, "up")
        self._know_each_other()
        for network in NEAR_ROUTES:
            ip("-n", self.near, "route", "add", network, "via", FAR_ADDRESS)
        for network in FAR_OWNED:
            ip("-n", self.far, "route", "add", "local", network, "dev", "lo")
        self.near_pid, self.far_pid = (self._hold_open(namespace) for namespace in (self.near, self.far))

    def _know_each_other(self):
        pairs = ((self.near, self.far, FAR_ADDRESS), (self.far, self.near, NEAR_ADDRESS))
        for namespace, other, address in pairs:
            show = ["ip", "-n", other, "link", "show", LINK]
            shown = subprocess.run(show, check=True, capture_output=True, text=True)
            hardware = re.search(r"link/ether (\S+)", shown.stdout).group(1)
            ip("-n", namespace, "neigh", "replace", address, "lladdr", hardware, "dev", LINK, "nud", "permanent")

    def _hold_open(self, namespace):
        """A process that does nothing there: the kernel shows a namespace's counters by process id."""
        helper = subprocess.Popen(self.command(namespace, ["sleep", "infinity"]))
        self.helpers.append(helper)
        for _ in range(500):  # it enters the namespace a moment after it starts
            if os.path.samefile(f"/proc/{helper.pid}/ns/net", f"/run/netns/{namespace}"):
                return helper.pid
            time.sleep(0.01)
        raise RuntimeError("the namespace did not open")

    def _remove(self):
        for helper in self.helpers:
            helper.kill()
            helper.wait()
        for namespace in (self.near, self.far):
            subprocess.run(["ip", "netns", "del", namespace], check=False, stderr=subprocess.DEVNULL)

    def _snmp(self, protocol, field):
        with open(f"/proc/{self.far_pid}/net/snmp", encoding="ascii") as table:
            names, values = [line.split() for line in table if line.startswith(protocol + ":")]
        return int(values[names.index(field)])

    def _device(self, pid):
        with open(f"/proc/{pid}/net/dev", encoding="ascii") as table:
            line = next(line for line in table if line.strip().startswith(LINK + ":"))
        numbers = [int(word) for word in line.split(":")[1].split()]
        return {"receive_drops": numbers[3], "sent": numbers[9], "send_drops": numbers[11]}
