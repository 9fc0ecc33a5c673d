"""The tables as data: which programs do which job, which figures are shown, and what Vorn has to reach."""

import dataclasses
import shutil
from typing import Callable

from harness import jobs, programs
from harness.lab import FAR_ADDRESS, FULL_RANGE, LOOPBACK_ADDRESS, SPARSE_HOSTS, SPARSE_RANGE, WIDE_RANGE


@dataclasses.dataclass(frozen=True)
class Row:
    program: str  # as shown
    role: str  # "vorn", "bare" (our floor), "before" (an earlier vorn), "peer", or "mixed" (never compared with)
    command: list
    output: str = ""  # whose way of reporting to read
    far_end: str = ""  # who answers
    far_program: str = ""
    stop_after: float = 0  # seconds, for a program that does not end on its own
    lead_in: float = 0.4  # seconds before the rate is read
    first_burst: int = 1  # packets of the first release of a paced stream
    is_stream_packet: Callable = None  # whether a captured packet belongs to the stream that is judged
    sends_from_far: bool = False  # the stream is the far end's


@dataclasses.dataclass(frozen=True)
class Column:
    figure: str
    title: str
    digits: int
    scale: float = 1.0


@dataclasses.dataclass(frozen=True)
class Goal:
    """`figure` of each Vorn row against that of `against` ("peer": the best of them, "bare", "before", the first word
    of a row, or "" for the figure itself): at least or at most `limit`."""

    figure: str
    against: str
    limit: float
    at_least: bool = True


@dataclasses.dataclass(frozen=True)
class Case:
    title: str
    rows: list
    setting: dict = dataclasses.field(default_factory=dict)
    goals: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass(frozen=True)
class Table:
    name: str
    title: str
    about: str
    columns: list
    compared: dict  # figure -> True when more is better
    cases: list
    job: Callable = None
    rounds: int = 0  # 0: as many as asked for


MILLION = 1e-6
BLAST_PORT, CLIENT_PORT = str(jobs.TEST_PORT), "8003"


# ---- blast

LOSES_NOTHING = Goal("lost", "", 0, at_least=False)

BLAST_COLUMNS = [
    Column("rate", "M packets/s at the far end", 3, MILLION),
    Column("cpu_ns", "processor ns per packet", 0),
    Column("lost", "lost on the way", 0),
    Column("queue_drops", "dropped by the far end's queue", 0),
]

# Vorn's pacing releases at most one packet per microsecond; what is left is for passes that come late.
NEAR_CEILING = 0.95e6
MESSAGES_PER_CALL = "32"


def bare_blast(title, role, kind, size, seconds, per_call, **more):
    command = [programs.bare("bare_blast"), *kind, str(size), str(seconds), per_call]
    return Row(title, role, command, output="bare", **more)


def udp_rows(vorn, seconds, payload):
    to_far = ["udp", FAR_ADDRESS, BLAST_PORT]
    return [
        Row("vorn", "vorn", [vorn, "-u", "-U", "-i", "-e", "-d0", f"-S{seconds}", f"-l{payload + 28}", FAR_ADDRESS],
            output="vorn", far_end="sink"),
        bare_blast("bare sendto loop", "bare", to_far, payload, seconds, "1", far_end="sink"),
        bare_blast("bare sendmmsg loop", "bare", to_far, payload, seconds, MESSAGES_PER_CALL, far_end="sink"),
        Row("iperf3 -u -b 0", "peer",
            ["iperf3", "--client", FAR_ADDRESS, "-u", "-b", "0", "-l", str(payload), "-t", str(seconds)],
            far_end="iperf3"),
    ]


def udp_blast(vorn, seconds, payload):
    hping = Row("hping3 --udp --flood", "peer",
                ["hping3", "--udp", "--flood", "-n", "-q", "-p", BLAST_PORT, "-d", str(payload), FAR_ADDRESS],
                output="hping3", far_end="sink", stop_after=seconds)
    goals = [Goal("rate", "", NEAR_CEILING), LOSES_NOTHING]
    if payload > 1000:
        goals.append(Goal("rate", "iperf3", 3))
    return Case(f"UDP, {payload} bytes", [*udp_rows(vorn, seconds, payload), hping], goals=goals)


def unsegmented_blast(vorn, seconds, title, payload, **setting):
    goals = [Goal("rate", "bare", 1), Goal("cpu_ns", "bare", 1.12, at_least=False), LOSES_NOTHING]
    return Case(f"UDP, {payload} bytes, {title}", udp_rows(vorn, seconds, payload), setting, goals)


def icmp_blast(vorn, seconds, message, one_way):
    kind = "replies (-U -i)" if one_way else "requests (-i), all answered"
    icmp_type = "0" if one_way else "8"
    to_far = ["icmp", FAR_ADDRESS, icmp_type]
    rows = [
        Row("vorn", "vorn", [vorn, *(["-U"] if one_way else []), "-i", "-e", "-d0", f"-S{seconds}", f"-l{message + 20}",
                             FAR_ADDRESS], output="vorn"),
        bare_blast("bare sendmmsg loop", "bare", to_far, message, seconds, MESSAGES_PER_CALL),
        bare_blast("bare sendto loop", "bare", to_far, message, seconds, "1"),
        Row("hping3 --icmp --flood", "peer",
            ["hping3", "--icmp", "--icmptype", icmp_type, "--flood", "-n", "-q", "-d", str(message - 8), FAR_ADDRESS],
            output="hping3", stop_after=seconds),
    ]
    goals = [Goal("rate", "bare", 0.95), Goal("cpu_ns", "bare", 1.12, at_least=False), Goal("rate", "peer", 1.7),
             LOSES_NOTHING]
    return Case(f"ICMP echo {kind}, {message} bytes", rows, goals=goals)


def blast_table(vorn, _quick):
    seconds = 2
    cases = [udp_blast(vorn, seconds, payload) for payload in (1472, 20)]
    cases += [unsegmented_blast(vorn, seconds, "in fragments at an MTU of 1500", 2972, frames_per_packet=3),
              unsegmented_blast(vorn, seconds, "checksum offload off", 1472, offload="off")]
    cases += [icmp_blast(vorn, seconds, message, one_way) for one_way in (True, False) for message in (1480, 36)]
    return Table(
        "blast", "Blast: packets per second",
        "One sender as fast as it can over veth. The rate is counted by the far end's IP layer over 1.2 s in the "
        "middle of the run; processor time is the sender's, user and system. Packet sizes are those behind the IP "
        "header for ICMP and behind the UDP header for UDP, the same for every row. What a program says it sent and "
        "did not arrive is lost on the way. A bare sendmmsg loop hands the kernel 32 packets in a call; Vorn releases "
        "at most one packet per microsecond.",
        BLAST_COLUMNS, {"rate": True, "cpu_ns": False}, cases, job=jobs.blast)


# ---- the far end of a blast

def far_case(vorn, payload, count):
    command = [vorn, "-u", "-U", "-i", "-d0", f"-e{count}", f"-l{payload + 28}", FAR_ADDRESS]
    goals = [Goal(figure, "", 0, at_least=False) for figure in ("uncounted", "missing", "repeated", "damaged")]
    return Case(f"{count:,} UDP packets of {payload} bytes", [Row("vorn", "vorn", command, output="vorn")],
                {"count": count, "offload": "off"}, goals)


def far_table(vorn, quick):
    share = 10 if quick else 1
    return Table(
        "far", "What arrives of a blast",
        "`vorn -u -U -i -d0` over a device without checksum offload, so that each packet crosses it as a frame of its "
        "own with a checksum of its own. The kernel's count at the far end is compared with what was printed as sent; "
        "every frame is captured there, and its sequence number, its payload of zeros and both its checksums are "
        "checked. Packets that the capture missed count as not checked, not as missing.",
        [Column("printed", "printed as sent", 0), Column("counted", "counted by the far end's kernel", 0),
         Column("uncounted", "difference", 0), Column("checked", "captured and checked", 0),
         Column("unchecked", "not checked", 0), Column("missing", "sequence numbers missing", 0),
         Column("repeated", "repeated", 0), Column("damaged", "payload or checksum wrong", 0)],
        {}, [far_case(vorn, 100, 10000000 // share), far_case(vorn, 1472, 1000000 // share)], job=jobs.far_end_check,
        rounds=1)


# ---- echo round trips

LOSS_COLUMNS = [
    Column("missing", "missing", 0),
    Column("discarded", "discarded by the far end's kernel", 0),
    Column("own_losses", "missing otherwise", 0),
]


def echo_case(vorn, host, answers, window, count):
    where = {"own call": "answered in the sender's own call", "other core": "answered by the other core",
             "loopback": "loopback"}[answers]
    rows = [
        Row("vorn", "vorn", [vorn, "-d0", f"-a{window}", f"-e{count}", "-l84", "-s", host], output="vorn"),
        Row("bare sendto/recvfrom loop", "bare",
            [programs.bare("bare_ping"), host, "1", str(count), "64", str(window), "100"], output="bare"),
        Row("ping -f", "peer", ["ping", "-f", "-q", "-n", "-l", str(window), "-c", str(count), "-s", "56", host],
            output="ping"),
    ]
    least = 1.1 if window > 10 else 1.0 if answers == "loopback" else 0.97
    goals = [Goal("rate", "peer", least), Goal("own_losses", "", 0, at_least=False)]
    return Case(f"{where}, window {window}", rows, {"answers": answers, "expected": count}, goals)


def echo_table(vorn, quick):
    counts = {"own call": 300000, "other core": 60000, "loopback": 300000}
    hosts = {"own call": FAR_ADDRESS, "other core": FAR_ADDRESS, "loopback": LOOPBACK_ADDRESS}
    cases = [echo_case(vorn, hosts[answers], answers, window, count // (5 if quick else 1))
             for answers, count in counts.items() for window in (1, 10, 50, 500)]
    return Table(
        "echo", "Echo round trips: 64-byte ICMP messages",
        "Answered requests per second from start to exit, with a window of unanswered requests (`-a#`, "
        "`ping -f -l #`). "
        "Over veth the far end answers within the sender's own system call, or, with receive packet steering, on the "
        "other core. There the far end's kernel now and then discards an answer, whoever asks; such losses are "
        "counted.",
        [Column("rate", "k round trips/s", 1, 1e-3), Column("cpu_ns", "processor ns per round trip", 0),
         *LOSS_COLUMNS, Column("memory_kb", "peak memory kB", 0)],
        {"rate": True, "cpu_ns": False}, cases, job=jobs.answered_requests)


# ---- sweep

def sweep_case(vorn, title, span, hosts, expected, goals, answers="own call"):
    rows = [
        Row("vorn", "vorn", [vorn, "-d0", "-a500", "-e1", "-l84", "-s", "-m", "-T500000", *span], output="vorn"),
        Row("bare sendto/recvfrom loop", "bare",
            [programs.bare("bare_ping"), span[0], str(hosts), "1", "64", "500", "500"], output="bare"),
        Row("fping -i 0 -r 0 -t 500", "peer", ["fping", "-i", "0", "-r", "0", "-t", "500", "-q", "-s", "-g", *span],
            output="fping"),
    ]
    return Case(title, rows, {"answers": answers, "expected": expected}, goals)


def sweep_table(vorn, _quick):
    wide_goals = [Goal("wall_ms", "peer", 1 / 1.35, at_least=False), Goal("memory_kb", "peer", 0.25, at_least=False),
                  Goal("own_losses", "", 0, at_least=False)]
    near_goals = [Goal("wall_ms", "peer", 1.0, at_least=False), Goal("own_losses", "", 0, at_least=False)]
    cases = [
        sweep_case(vorn, "65,534 hosts, all answer", WIDE_RANGE, 65534, 65534, wide_goals),
        sweep_case(vorn, "65,534 hosts, all answer, from the other core", WIDE_RANGE, 65534, 65534, [],
                   "other core"),
        sweep_case(vorn, "254 hosts, all answer", FULL_RANGE, 254, 254, near_goals),
        sweep_case(vorn, "254 hosts, 50 answer", SPARSE_RANGE, 254, SPARSE_HOSTS, near_goals),
    ]
    return Table(
        "sweep", "Sweep of an address range",
        "One request to each address, from start to exit, no line per host in any row. `missing` counts hosts that "
        "exist and were not found. All send 64 bytes of ICMP. fping has no window.",
        [Column("wall_ms", "ms", 2), Column("cpu_ns", "processor ns per address", 0),
         Column("answered", "found", 0), *LOSS_COLUMNS, Column("memory_kb", "peak memory kB", 0)],
        {"wall_ms": False, "cpu_ns": False, "memory_kb": False}, cases, job=jobs.answered_requests)


# ---- partner streams and long tests

def pair_rows(vorn, packets, ip_length, batches):
    ask = {
        "vorn": [vorn, "--client", f"-E{packets}", f"-e{batches}", f"-l{ip_length}", FAR_ADDRESS],
        "bare": [programs.bare("bare_commander"), FAR_ADDRESS, BLAST_PORT, CLIENT_PORT, str(packets), str(ip_length),
                 str(batches)],
    }

    def pair(title, role, asking, answering, program=vorn):
        return Row(title, role, ask[asking], output=asking, far_end=answering, far_program=program)

    rows = {
        "vorn": pair("vorn --client, vorn --server", "vorn", "vorn", "vorn"),
        "bare": pair("bare pair", "bare", "bare", "bare"),
        "vorn asks": pair("vorn --client, bare monitor", "mixed", "vorn", "bare"),
        "vorn answers": pair("bare commander, vorn --server", "mixed", "bare", "vorn"),
    }
    before = programs.baseline()
    if before:
        row = pair("vorn before, both sides", "before", "vorn", "vorn", before)
        rows["before"] = dataclasses.replace(row, command=[before, *row.command[1:]])
    return rows


PARTNER_COLUMNS = [
    Column("batches", "batches/s", 1), Column("cpu_usec", "asking side's processor usec per batch", 1),
    Column("lost", "packets lost", 0), Column("bad", "bad batches", 0),
]


def partner_table(vorn, quick):
    goals = [Goal("batches", "before", 1.05), Goal("batches", "bare", 0.9), Goal("lost", "", 0, at_least=False),
             Goal("bad", "", 0, at_least=False)]
    cases = [Case(f"{packets} x 1472 bytes, {title}",
                  list(pair_rows(vorn, packets, 1500, batches // (5 if quick else 1)).values()),
                  {"answers": answers}, goals)
             for answers, title in (("own call", "received on the sender's core"),)
             for packets, batches in ((50, 20000), (200, 6000))]
    return Table(
        "partner", "Partner stream, back to back",
        "One side asks, the other streams at once, each on a core of its own; a batch ends with its last packet. The "
        "mixed pairs show which side costs what. BASELINE=PATH adds an earlier Vorn.",
        PARTNER_COLUMNS, {"batches": True, "cpu_usec": False}, cases, job=jobs.partner_stream)


def long_table(vorn, quick):
    rows = pair_rows(vorn, 2, 48, 20000 if quick else 200000)
    vorn_row = dataclasses.replace(rows["vorn asks"], role="vorn")
    goals = [Goal("growth", "", 1.2, at_least=False), Goal("bad", "", 0, at_least=False)]
    case = Case(f"{20000 if quick else 200000:,} batches of two packets", [vorn_row, rows["bare"]],
                {"give_up": 600}, goals)
    return Table(
        "long", "Long tests: time per batch",
        "The far end is the bare monitor, which answers each command at once and notes when commands come. Growth is "
        "the time of the last 1,000 batches over that of the first 1,000.",
        [Column("growth", "growth", 3), Column("first_usec", "first 1,000: usec per batch", 2),
         Column("last_usec", "last 1,000: usec per batch", 2), Column("memory_kb", "peak memory kB", 0),
         *PARTNER_COLUMNS],
        {"batches": True, "cpu_usec": False}, [case], job=jobs.partner_stream)


# ---- start-up and size

def start_case(vorn, title, host):
    rows = [
        Row("vorn -e1 -a1", "vorn", [vorn, "-e1", "-a1", host]),
        Row("bare ping loop", "bare", [programs.bare("bare_ping"), host, "1", "1", "8", "1", "1000"]),
        Row("fping", "peer", ["fping", host]),
        Row("ping -c1", "mixed", ["ping", "-n", "-c1", host]),
    ]
    goals = [Goal("wall_ms", "peer", 1.0, at_least=False), Goal("memory_kb", "peer", 1.0, at_least=False)]
    return Case(title, rows, goals=goals)


def start_table(vorn, _quick):
    cases = [start_case(vorn, "over veth", FAR_ADDRESS), start_case(vorn, "loopback", LOOPBACK_ADDRESS)]
    return Table(
        "start", "Start to exit of one echo",
        "Median of 200 runs in each round, process creation included; output to files. ping is shown, not compared "
        "with.",
        [Column("wall_ms", "ms", 3), Column("cpu_ms", "processor ms", 3), Column("memory_kb", "peak memory kB", 0)],
        {"wall_ms": False, "memory_kb": False}, cases, job=jobs.start_to_exit)


def size_table(vorn, _quick):
    rows = [Row("vorn", "vorn", [vorn]), Row("fping", "peer", [shutil.which("fping") or "fping"])]
    goals = [Goal("size_kb", "", 150, at_least=False), Goal("beyond_libc", "", 0, at_least=False)]
    return Table(
        "size", "Size on disk", "Stripped; libraries that the program names itself.",
        [Column("size_kb", "kB (1000 bytes)", 1), Column("beyond_libc", "libraries besides libc", 0)],
        {"size_kb": False}, [Case("stripped program", rows, goals=goals)], job=jobs.size_on_disk, rounds=1)


TABLES = {
    "blast": blast_table,
    "far": far_table,
    "echo": echo_table,
    "sweep": sweep_table,
    "partner": partner_table,
    "start": start_table,
    "size": size_table,
    "long": long_table,
}
