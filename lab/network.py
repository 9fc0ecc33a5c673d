"""Networks on this machine, described as data: hosts, routers and links, for the tests, the benchmark and the tour.

    links = [Link(End("near", ["10.77.0.1/24"]), End("router", ["10.77.0.2/24"], rate="100mbit")),
             Link(End("router", ["10.77.1.1/24"]), End("far", ["10.77.1.2/24"]))]
    with standing(chain(links), links) as hosts:
        hosts["far"].start([vorn, "--server"])
        hosts["near"].run([vorn, "-u", "10.77.1.2"])

A host is a network namespace without a name: it lasts as long as the descriptor that holds it and the processes in it.
At the end of the `with`, also by an exception, all processes in it are killed and the descriptor is closed; links,
routes, queues and TUN devices go with it. SIGTERM and SIGHUP, unless a program has arranged for them, are exceptions as
SIGINT is; only SIGKILL leaves what runs in the network. Making one takes root, importing this does not.

In a shell, `network.py [ADDRESS/LENGTH...] -- COMMAND...` runs a command on a host alone that has these addresses.
"""

import contextlib
import ctypes
import dataclasses
import ipaddress
import os
import pathlib
import signal
import subprocess
import sys
import time
from collections.abc import Sequence

LIBC, NEW_NETWORK = ctypes.CDLL(None), 0x40000000  # CLONE_NEWNET
OWN_NETWORK = "/proc/thread-self/ns/net"
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


@dataclasses.dataclass(frozen=True)
class Host:
    addresses: Sequence[str] = ()  # of its loopback device, beside 127.0.0.1, each with its length
    routes: Sequence[str] = ()  # in the words of `ip route add`
    forwards: bool = False
    settings: dict = dataclasses.field(default_factory=dict)  # {file below /proc/sys/net: value}, before any device


@dataclasses.dataclass(frozen=True)
class End:
    """One end of a link, which is a device of its host."""
    host: str
    addresses: Sequence[str]  # each with its length
    device: str = ""  # its name; empty: to-OTHER
    rate: str = ""  # of what leaves here, as tc reads it ("100mbit"); empty: as fast as the machine
    queue: str = "burst 2kb latency 1s"  # before that rate, in the words of tc-tbf(8); one packet: evenly spaced


@dataclasses.dataclass(frozen=True)
class Link:
    left: End
    right: End


def chain(links):
    """The hosts of links that form a line. All between the first and the last are routers; each has a route to every
    link of the line, and only the first sends all other packets to its router, which refuses them."""
    hosts = {}
    for place, name in enumerate([links[0].left.host, *(link.right.host for link in links)]):
        routes = [f"{_network(link)} via {_gateway(links[place - 1].left)}" for link in links[:max(place - 1, 0)]]
        routes += [f"{_network(link)} via {_gateway(links[place].right)}" for link in links[place + 1:]]
        routes += [f"default via {_gateway(links[0].right)}"] if place == 0 else []
        hosts[name] = Host(routes=routes, forwards=0 < place < len(links))
    return hosts


def _network(link):
    return ipaddress.ip_interface(link.left.addresses[0]).network


def _gateway(end):
    return end.addresses[0].partition("/")[0]


def _move_to(network):
    if LIBC.setns(network, NEW_NETWORK) != 0:
        raise PermissionError("only root can enter a network namespace")


class Namespace:
    """A host that stands. `with` moves the calling thread, and what it starts or opens, into it."""

    def __init__(self):
        self.programs, self.came_from = [], []
        home = os.open(OWN_NETWORK, os.O_RDONLY)
        if LIBC.unshare(NEW_NETWORK) != 0:
            raise PermissionError("only root can make a network namespace")
        self.network = os.open(OWN_NETWORK, os.O_RDONLY)
        _move_to(home)
        os.close(home)

    def __enter__(self):
        self.came_from.append(os.open(OWN_NETWORK, os.O_RDONLY))
        _move_to(self.network)
        return self

    def __exit__(self, *_):
        _move_to(self.came_from[-1])
        os.close(self.came_from.pop())

    @property
    def path(self):
        """The namespace as a file that any other process can open, while this one lives."""
        return f"/proc/{os.getpid()}/fd/{self.network}"

    def command(self, command):
        """The command as one that another process can run from anywhere. It executes in place: the id is its own."""
        return ["nsenter", f"--net={self.path}", *command]

    def run(self, command, **options):
        with self:
            return subprocess.run(command, **options)

    def start(self, command, **options):
        """A program that is ended with the network, at the latest. Keys of the terminal do not reach it."""
        with self:
            self.programs.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **options))
        return self.programs[-1]

    def run_in_front(self, command, **options):
        """Runs a command that has the terminal, whose keys are for it alone; its exit status as a shell has it."""
        for key in (signal.SIGINT, signal.SIGQUIT):
            signal.signal(key, lambda *_: None)
        try:
            status = self.run(command, **options).returncode
        except KeyboardInterrupt:  # we ourselves were asked to end
            status = -signal.SIGTERM
        return status if status >= 0 else 128 - status

    def ip(self, *commands):
        """Commands of ip(8), each without its first word."""
        if commands:
            self.run(["ip", "-batch", "-"], input="\n".join(commands), text=True, check=True)

    def read(self, file):
        """A file below /proc/net, such as "snmp"."""
        with self:
            return pathlib.Path("/proc/thread-self/net", file).read_text()

    def write(self, setting, value):
        with self:
            pathlib.Path("/proc/sys/net", setting).write_text(f"{value}")

    def has_port(self, port, table="udp"):
        """Whether a program holds the local port; tables: udp, tcp, tcp6."""
        sockets = [line.split()[1] for line in self.read(table).splitlines()[1:]]
        return any(local.endswith(f":{port:04X}") for local in sockets)

    def inhabitants(self):
        """The ids of all other processes whose network this is."""
        found, ours = [], os.fstat(self.network).st_ino
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):  # it has just ended
                if (process / "ns/net").stat().st_ino == ours and int(process.name) != os.getpid():
                    found.append(int(process.name))
        return found

    def close(self):
        while inhabitants := self.inhabitants():
            for process in inhabitants:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(process, signal.SIGKILL)
            time.sleep(0.001)
        for program in self.programs:
            program.wait()
        os.close(self.network)


@contextlib.contextmanager
def standing(hosts, links=()):
    """Makes the network of these hosts by name, gives its namespaces by name, and removes it."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) == signal.SIG_DFL:
            signal.signal(number, signal.default_int_handler)  # which raises KeyboardInterrupt
    network = {}
    try:
        for name, host in hosts.items():
            network[name] = Namespace()
            _set_up(network[name], host)
        for link in links:
            _join(network, link.left, link.right)
        for name, host in hosts.items():
            network[name].ip(*(f"route add {route}" for route in host.routes))
        yield network
    finally:
        blocked = signal.pthread_sigmask(signal.SIG_BLOCK, ENDING_SIGNALS)  # a second one must not leave half of it
        for namespace in network.values():
            namespace.close()
        signal.pthread_sigmask(signal.SIG_SETMASK, blocked)


def _set_up(namespace, host):
    namespace.write("ipv4/ip_forward", int(host.forwards))  # else as this machine does
    if host.forwards:
        namespace.write("ipv4/icmp_ratelimit", 0)  # it answers every packet that runs out of hops
    for setting, value in host.settings.items():
        namespace.write(setting, value)
    namespace.ip("link set lo up", *(f"address add {address} dev lo" for address in host.addresses))


def _join(network, left, right):
    devices = [left.device or f"to-{right.host}", right.device or f"to-{left.host}"]
    network[left.host].ip(f"link add {devices[0]} type veth peer name {devices[1]} netns {network[right.host].path}")
    for end, device in zip((left, right), devices):
        network[end.host].ip(*(f"address add {address} dev {device}" for address in end.addresses),
                             f"link set {device} up")
        if end.rate:
            queue = ["tbf", "rate", end.rate, *end.queue.split()]
            if network[end.host].run(["tc", "qdisc", "add", "dev", device, "root", *queue]).returncode != 0:
                print(f"{device} of {end.host} is not slowed: this kernel lacks the queue sch_tbf", file=sys.stderr)


if __name__ == "__main__":
    addresses, command = sys.argv[1:sys.argv.index("--")], sys.argv[sys.argv.index("--") + 1:]
    with standing({"here": Host(addresses=addresses)}) as network:
        sys.exit(network["here"].run_in_front(command))
