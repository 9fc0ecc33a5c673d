# The laboratory of the end-to-end tests: the networks of lab/network.py, the program in them, a peer that follows a
# script, and what the program sends and prints. Nothing is left behind, however a test ends.
import contextlib, csv, fcntl, os, re, select, socket, struct, subprocess, sys, tempfile, threading, time
from collections import namedtuple
from pathlib import Path

TOP = Path(__file__).parents[2]
sys.path.insert(0, str(TOP / "lab"))
from network import LIBC, End, Host, Link, chain, standing

VORN = os.path.abspath(os.environ.get("VORN", TOP / "build/debug/vorn"))
VERSION = ".".join(re.findall(r"version_(?:major|minor) = (\d+);", (TOP / "src/base/version.h").read_text()))
# The library that shows a program a date that is set.
SET_DATE = os.path.abspath(os.environ.get("SET_DATE", TOP / "build/debug/tests/libvorn_set_date.so"))
PATIENCE = 60  # seconds that only a hanging program exceeds
HOST, LOOPBACK = "10.9.0.2", "127.0.0.1"  # the first stands behind the TUN device, as does all of 10.9.0.0/16
LOCAL_PORT, REMOTE_PORT = 8003, 8004  # a commander's; a monitor swaps them


# Waits until the condition holds; how long that takes on a busy machine is no fault of the program.
def eventually(condition, what, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        assert time.monotonic() < deadline, f"waited in vain for {what}"
        time.sleep(0.002)


# ---- the program ----

# The program under test while it runs, and what it wrote: `out`, `err` (or all in `out` when merged).
class Program:
    def __init__(self, command, merged=False, env={}, **options):
        self.files = [tempfile.NamedTemporaryFile(), tempfile.NamedTemporaryFile()]
        streams = {"stdout": self.files[0], "stderr": self.files[not merged], "stdin": subprocess.DEVNULL}
        env = {**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0", **env}
        self.process = subprocess.Popen(command, env=env, **{**streams, **options})
        self.pid, self.signal = self.process.pid, self.process.send_signal

    out = property(lambda self: Path(self.files[0].name).read_text())
    err = property(lambda self: Path(self.files[1].name).read_text())
    status = property(lambda self: self.process.poll())  # negative: the signal that ended it

    @property
    def body(self):  # standard output behind the banner
        banner = rf"Vorn version {re.escape(VERSION)}, .*\nBuilt [A-Z][a-z]{{2}} [ \d]\d \d{{4}} at \d\d:\d\d:\d\d\n"
        return self.out[re.match(banner, self.out).end():]

    def proc(self, file):
        return Path(f"/proc/{self.pid}/{file}").read_text()

    # The values of these options, and the address, of each socket that it has open.
    def sockets(self, *options):
        process, found = os.pidfd_open(self.pid), []
        for name in sorted(os.listdir(f"/proc/{self.pid}/fd"), key=int):
            if os.readlink(f"/proc/{self.pid}/fd/{name}").startswith("socket:"):
                with socket.socket(fileno=LIBC.syscall(438, process, int(name), 0)) as copy:  # pidfd_getfd
                    found.append([*(copy.getsockopt(*option) for option in options), copy.getsockname()[0]])
        os.close(process)
        return found

    def wait_for(self, text):
        eventually(lambda: text in self.out + self.err or self.status is not None, text)
        assert self.status is None, (text, self.out, self.err)

    # UDP datagrams that left its namespace.
    def datagrams_sent(self):
        return int(re.findall("^Udp: (.*)", self.proc("net/snmp"), re.M)[1].split()[3])

    # "S": asleep, so it has read all that came; "T": stopped.
    def wait_until(self, state):
        eventually(lambda: self.proc("stat").rpartition(") ")[2][0] == state, f"state {state}")

    def finish(self, patience=PATIENCE):
        eventually(lambda: self.status is not None, f"the end of {self.process.args}", patience)
        assert "Sanitizer" not in self.err and "runtime error" not in self.err, self.err
        return self

    def close(self):
        self.process.kill()
        self.process.wait()
        for file in self.files:
            file.close()


class Lab(contextlib.ExitStack):
    def own(self, thing):
        return self.enter_context(contextlib.closing(thing))

    def namespace(self):
        return self.enter_context(standing({"here": Host()}))["here"]

    # Two hosts with so many routers between them; link i joins 10.9.i.1 and 10.9.i.2.
    def chain(self, routers):
        links = [Link(End(f"host{i}", [f"10.9.{i}.1/24"]), End(f"host{i + 1}", [f"10.9.{i}.2/24"]))
                 for i in range(routers + 1)]
        hosts = list(self.enter_context(standing(chain(links), links)).values())
        for host in hosts:
            host.write("ipv4/icmp_ratemask", 0)  # it answers every packet, however many tests run beside this one
        return hosts

    # Start the program in a namespace; `before` is a command in front of it, such as one that ignores a signal. What
    # our own caller ignores (a shell's background job ignores SIGINT) must not be ignored by the program.
    def start(self, *arguments, at=None, before=(), program=VORN, **options):
        with at or self.namespace():
            command = ["env", "--default-signal=HUP,INT,QUIT,TERM", *before, program, *arguments]
            return self.own(Program(command, **options))

    def run(self, *arguments, **options):
        return self.start(*arguments, **options).finish()

    # Against a scripted peer, still running once the peer has seen so many packets.
    def pinging(self, script, count, *arguments, **options):
        peer = self.own(TunPeer(self.namespace(), script))
        run = self.start(*arguments, at=peer.namespace, **options)
        eventually(lambda: len(peer.packets) >= count, f"packet {count}")
        return run, peer

    def ping(self, script, *arguments, **options):
        run, peer = self.pinging(script, 0, *arguments, **options)
        return run.finish(), peer

    def monitor(self, *arguments, **options):
        program = self.start(*arguments, "--server", **options)
        program.wait_for("Destination IP")
        program.wait_until("S")  # its first packet is out and it serves
        return program

    # A UDP socket, or one that is connected to the monitor of a host over TCP.
    def socket(self, at, port=0, to=None):
        with at:
            made = self.own(socket.socket(socket.AF_INET, socket.SOCK_STREAM if to else socket.SOCK_DGRAM))
        made.settimeout(PATIENCE)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.setsockopt(socket.SOL_SOCKET, 33, 1 << 26)  # SO_RCVBUFFORCE: nothing is lost on our side
        made.bind(("0.0.0.0", port))
        if to:
            made.connect((to, REMOTE_PORT))
        return made

    # Sends packets as they are, whoever they claim to come from.
    def raw_socket(self, at):
        with at:
            return self.own(socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW))


# ---- the scripted peer on a TUN device ----

# An IPv4 packet that the program sent, taken apart; for other protocols than ICMP the last fields mean nothing.
class Packet:
    def __init__(self, data):
        self.data, self.tos, self.ttl, self.message = data, data[1], data[8], data[(data[0] & 15) * 4:]
        self.source, self.destination = socket.inet_ntoa(data[12:16]), socket.inet_ntoa(data[16:20])
        self.type, self.code, self.identifier, self.sequence = struct.unpack(">BBxxHH", self.message[:8])


# Plays all hosts behind a TUN device: script(packet) gives the IPv4 packets to send for it, one after the other, each
# with the seconds to wait first. A table as script gives request n the answers of table[n], else one at once.
class TunPeer(threading.Thread):
    def __init__(self, namespace, script):
        super().__init__(daemon=True)
        self.namespace, self.packets, self.stop = namespace, [], os.eventfd(0)
        self.script = script if callable(script) else lambda request: [
            answer(request) for answer in script.get(request.sequence, [reply()])] if request.type == 8 else []
        with namespace:
            self.tun = os.open("/dev/net/tun", os.O_RDWR | os.O_CLOEXEC)
            fcntl.ioctl(self.tun, 0x400454CA, struct.pack("16sH22x", b"tun0", 0x1001))  # TUNSETIFF: IFF_TUN | IFF_NO_PI
        namespace.ip("addr add 10.9.0.1/16 dev tun0", "link set tun0 up")
        self.start()

    def run(self):
        while self.stop not in select.select([self.tun, self.stop], [], [])[0]:
            data = os.read(self.tun, 65536)
            if data[0] >> 4 == 4 and data[9] == socket.IPPROTO_ICMP:  # else the kernel's own, such as IPv6 neighbours
                self.packets.append(Packet(data))
                for delay, packet in self.script(self.packets[-1]):
                    time.sleep(delay)
                    os.write(self.tun, packet)

    def close(self):
        os.eventfd_write(self.stop, 1)
        self.join()
        os.close(self.tun)
        os.close(self.stop)


def checksum(data):
    total = sum(struct.unpack(f">{(len(data) + 1) // 2}H", data + b"\0" * (len(data) % 2)))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def ipv4(source, destination, payload, options=b"", protocol=socket.IPPROTO_ICMP):
    size = 20 + len(options)
    front = struct.pack(">BBHHHBB", 0x40 | size // 4, 0, size + len(payload), 0, 0, 64, protocol)
    back = socket.inet_aton(source) + socket.inet_aton(destination) + options
    return front + struct.pack(">H", checksum(front + b"\0\0" + back)) + back + payload


# Ends are pairs of address and port; a checksum of 0 is none.
def udp(source, destination, text, checksum=0):
    header = struct.pack(">HHHH", source[1], destination[1], 8 + len(text), checksum)
    return ipv4(source[0], destination[0], header + text, protocol=socket.IPPROTO_UDP)


def icmp(kind, rest, spoil=0):
    return struct.pack(">BBH", kind, 0, checksum(struct.pack(">BBH", kind, 0, 0) + rest) ^ spoil) + rest


# Answers with an echo reply, right in all that is not said otherwise; shift: for another request, so many later.
def reply(delay=0, source=None, identifier=None, shift=0, spoil=0, options=b"", length=None):
    def build(request):
        ids = (request.identifier if identifier is None else identifier, request.sequence + shift)
        rest = struct.pack(">HH", *ids) + request.message[8:]
        message = icmp(0, rest[:None if length is None else length - 4], spoil)
        return delay, ipv4(source or request.destination, request.source, message, options)
    return build


# Answers with an ICMP error of so many bytes that quotes the request; patch = {offset in the quote: byte}.
def error(kind, source="10.9.0.99", length=None, patch={}, options=b""):
    def build(request):
        quote = bytearray(request.data)
        for offset, value in patch.items():
            quote[offset] = value
        rest = (bytes(4) + bytes(quote))[:None if length is None else length - 4]
        return 0, ipv4(source, request.source, icmp(kind, rest), options)
    return build


# ---- test messages of the UDP and TCP carriers ----

Header = namedtuple("Header", "type process_id batch sequence length")
ECHO_REQUEST, ECHO_REPLY, DATA, OPERATION = 1, 2, 3, 4
# The words of a command; "!" marks those in network byte order. `ports` is the local and the remote port in one word.
COMMAND = """max_outstanding! total_requests! echo_count! traceroute delay_usec! timeout_usec! start_host end_host
    ip_length! silent no_timeout_messages ignore_responses! average_window debug unidirectional! reserved report_host
    report_enabled partner_mode remote_run! udp! tcp! ports! process_id command_mode remote_echoes option_i_value
    command_period_usec! tos! payload_length multicast_interface verbose duration_sec quiet show_bandwidth
    show_buffers""".split()


def message(kind, batch=0, sequence=0, process_id=b"test", body=b"", length=None):
    length = 20 + len(body) if length is None else length
    return struct.pack(">I4sIII", kind, process_id, batch, sequence, length) + body


def header(data):
    return Header._make(struct.unpack(">I4sIII", data[:20]))


# The body of an Operation message, as a commander with `-E<echoes> -d0` fills it.
def command(echoes, **changes):
    values = dict(max_outstanding=1, total_requests=echoes, echo_count=echoes, delay_usec=1, timeout_usec=100001,
                  ignore_responses=1, unidirectional=1, remote_run=1, udp=1, command_period_usec=1,
                  ports=REMOTE_PORT << 16 | LOCAL_PORT) | changes
    return b"".join(struct.pack(">I" if name[-1] == "!" else "=I", values.get(name.rstrip("!"), 0)) for name in COMMAND)


# ---- what the program prints ----

# The last row of a results file, by the headings of its first.
def last_row(file):
    with file.open() as table:
        headings, *_, row = csv.reader(table)
    return dict(zip(headings, row))


# Measured figures become #, but only where they stand in a column as wide as it must be.
def shape(text):
    text = re.sub(r"(?:[ \d]\d|\d{3,})\.\d{6}(?=s |s,|,)", "#", text)
    text = re.sub(r"(?:[ \d]{5}|\d{6,})\.\d{3}(?= tx/s| rx/s|KB/s|Kb/s)", "#", text)
    text = re.sub(r"(?:[ \d]{4}|\d{5,})\.\d{3}s$", "#s", text, flags=re.M)
    return re.sub(r"(?:[ \d]{3}|\d{4,})\.\d(?= )", "#", text)


def received(sequence, source=HOST, name=" Echo Reply "):
    return f"{sequence:12d}: Received {name} in #s from {source}\n"


def timed_out(sequence, host=HOST):
    return f"{sequence:12d}: TIMEOUT in #s, expected rsp from {host}\n"


def unexpected(sequence):
    return f"Err- Unexpected echo response received. Duplicate or out of order, ID {sequence}\n"


def summary(sent, answered, asked=2):
    counts = (f"In #s, {sent} tx pkts, {answered} rx pkts, {sent - answered} missing, 0 invalid\n# tx/s, # rx/s\n"
              "IP data rate #KB/s, #Kb/s\n")
    return (counts if asked > 1 else "") + ("Min = #, Max = #, Avg = #, \n\n" if answered else "")
