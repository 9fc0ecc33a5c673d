"""The tables as data: which programs do which job, which figures are shown, and what Vorn has to reach."""

import dataclasses
import shutil
from typing import Callable

from harness import jobs, programs
from harness.lab import FAR_ADDRESS, FULL_RANGE, LOOPBACK_ADDRESS, SPARSE_HOSTS, SPARSE_RANGE, WIDE_RANGE


@dataclasses.dataclass(frozen=True)
class Row:
    program: str  # as shown
    role: str  # "vorn", "bare" (our floor), "peer", or "mixed" (shown, never compared with)
    command: list
    output: str = ""  # whose way of reporting to read
    far_end: str = ""  # who answers
    far_program: str = ""
    stop_after: float = 0  # seconds, for a program that does not end on its own
    lead_in: float = 0.4  # seconds before the rate is read
    first_burst: int = 1  # packets of the first release of a paced stream


@dataclasses.dataclass(frozen=True)
class Column:
    figure: str
    title: str
    digits: int
    scale: float = 1.0


@dataclasses.dataclass(frozen=True)
class Goal:
    """`figure` of Vorn against that of `against` ("peer": the best of them, "bare", a program's name, or "" for the
    figure itself): at least or at most `limit`."""

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
    group_of: Callable = None  # for jobs that run rows side by side: case -> the group it runs in, None for alone
    rounds: int = 0  # 0: as many as asked for


MILLION = 1e-6
BLAST_PORT, CLIENT_PORT = str(jobs.TEST_PORT), "8003"


# ---- blast

BLAST_COLUMNS = [
    Column("rate", "M packets/s at the far end", 3, MILLION),
    Column("cpu_ns", "processor ns per packet", 0),
    Column("lost", "lost on the way", 0),
    Column("queue_drops", "dropped by the far end's queue", 0),
]

# Vorn's pacing releases at most one packet per microsecond, so that the bare loop is no measure above this rate.
PACED_CEILING = 1.05e6
NEAR_CEILING = 0.97e6


def blast_goals(*more):
    return [Goal("rate", "bare unless ceiling", 0.93), Goal("cpu_ns", "bare", 1.12, at_least=False), *more]


def udp_blast(vorn, seconds, payload):
    rows = [
        Row("vorn", "vorn", [vorn, "-u", "-U", "-i", "-e", "-d0", f"-S{seconds}", f"-l{payload + 28}", FAR_ADDRESS],
            far_end="sink"),
        Row("bare sendto loop", "bare",
            [programs.bare("bare_udp_blast"), FAR_ADDRESS, BLAST_PORT, str(payload), str(seconds)], far_end="sink"),
        Row("iperf3 -u -b 0", "peer",
            ["iperf3", "--client", FAR_ADDRESS, "-u", "-b", "0", "-l", str(payload), "-t", str(seconds)],
            far_end="iperf3"),
        Row("hping3 --udp --flood", "peer",
            ["hping3", "--udp", "--flood", "-n", "-q", "-p", BLAST_PORT, "-d", str(payload), FAR_ADDRESS],
            far_end="sink", stop_after=seconds),
    ]
    return Case(f"UDP, {payload} bytes", rows, goals=blast_goals())


def icmp_blast(vorn, seconds, message, one_way):
    kind = "replies (-U -i)" if one_way else "requests (-i), all answered"
    icmp_type = "0" if one_way else "8"
    rows = [
        Row("vorn", "vorn", [vorn, *(["-U"] if one_way else []), "-i", "-e", "-d0", f"-S{seconds}", f"-l{message + 20}",
                             FAR_ADDRESS]),
        Row("bare sendto loop", "bare",
            [programs.bare("bare_icmp_blast"), FAR_ADDRESS, icmp_type, str(message), str(seconds)]),
        Row("hping3 --icmp --flood", "peer",
            ["hping3", "--icmp", "--icmptype", icmp_type, "--flood", "-n", "-q", "-d", str(message - 8), FAR_ADDRESS],
            stop_after=seconds),
    ]
    return Case(f"ICMP echo {kind}, {message} bytes", rows, goals=blast_goals(Goal("rate", "peer", 1.6)))


def blast_table(vorn, _quick):
    seconds = 2
    cases = [udp_blast(vorn, seconds, payload) for payload in (1472, 20)]
    cases += [icmp_blast(vorn, seconds, message, one_way) for one_way in (True, False) for message in (1480, 36)]
    return Table(
        "blast", "Blast: packets per second",
        "One sender as fast as it can over veth. The rate is counted by the far end's IP layer over 1.2 s in the "
        "middle of the run; processor time is the sender's, user and system. Packet sizes are those behind the IP "
        "header for ICMP and behind the UDP header for UDP, the same for every row.",
        BLAST_COLUMNS, {"rate": True, "cpu_ns": False}, cases, job=jobs.blast)


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
    goals = [Goal("rate", "peer", 0.97 if window <= 10 else 1.1), Goal("own_losses", "", 0, at_least=False)]
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
    wide_goals = [Goal("wall_ms", "peer", 1 / 1.5, at_least=False), Goal("memory_kb", "peer", 0.25, at_least=False),
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


# ---- pacing

PACING_SECONDS = {100: 60, 1000: 8, 10000: 6}
FIRST_RELEASE_USEC = 10000
ECHO_WINDOW = 10


def pacing_case(vorn, carrier, path, rate, seconds):
    period, count = 1000000 // rate, rate * seconds
    burst = max(1, FIRST_RELEASE_USEC // period)
    window = count
    if path == "echo":
        window = ECHO_WINDOW
        burst = min(burst, window)
    udp = carrier == "udp"
    bytes_sent = "20" if udp else "8"
    vorn_flags = ["-U", "-i"] if path == "ignore" else [f"-a{ECHO_WINDOW}", "-s", "-m"]
    rows = [
        Row("vorn", "vorn", [vorn, *(["-u"] if udp else []), *vorn_flags, f"-r{rate}", f"-e{count}", FAR_ADDRESS],
            first_burst=burst),
        Row("bare paced loop", "bare",
            [programs.bare("bare_paced"), carrier, FAR_ADDRESS, BLAST_PORT, bytes_sent, str(rate), str(count),
             "sleep" if path == "ignore" else "wait", str(window)], first_burst=burst),
        *pacing_peers(carrier, path, period, count),
    ]
    setting = {"carrier": carrier, "path": path, "rate": rate, "seconds": seconds, "count": count,
               "period_usec": period}
    how = "sends only (-i)" if path == "ignore" else f"echo mode (-a{ECHO_WINDOW})"
    goals = [Goal("rate_error", "", 0.01, at_least=False), Goal("gap_error_usec", "bare", 1.2, at_least=False)]
    return Case(f"{carrier.upper()}, {rate}/s, {how}", rows, setting, goals)


def pacing_peers(carrier, path, period, count):
    if path == "ignore":
        kind = ["--udp", "-p", BLAST_PORT] if carrier == "udp" else ["--icmp", "--icmptype", "0"]
        return [Row("hping3 -i u#", "peer",
                    ["hping3", *kind, "-n", "-q", "-i", f"u{period}", "-c", str(count), FAR_ADDRESS])]
    if carrier == "icmp" and period >= 1000:  # ping knows no shorter interval
        return [Row("ping -i", "peer",
                    ["ping", "-n", "-q", "-s", "0", "-i", f"{period / 1e6}", "-c", str(count), FAR_ADDRESS])]
    return []


def pacing_table(vorn, quick):
    runs = {rate: seconds // (5 if quick else 1) for rate, seconds in PACING_SECONDS.items()}
    cases = [pacing_case(vorn, carrier, path, rate, seconds)
             for rate, seconds in runs.items() for path in ("ignore", "echo") for carrier in ("udp", "icmp")]
    return Table(
        "pacing", "Pacing",
        "Kernel receive stamps at the far end, after the first release (a burst of 10 ms worth of packets). The rate "
        "error is that of the whole run; as an exact stream ends late by up to one period, it cannot be told finer "
        f"than one packet in the run (the runs take {', '.join(f'{s} s at {r}/s' for r, s in runs.items())}). "
        "The gap columns are medians over all "
        "gaps: the deviation from the period asked for, and from the median gap. At 100/s all rows run side by side, "
        "each in namespaces of its own; the others run alone. The bare loop sleeps as Vorn does, with a timer slack "
        "of 1 ns.",
        [Column("rate_error", "mean rate off by %", 4), Column("gap_error_usec", "gap off by usec", 2),
         Column("gap_spread_usec", "gap off the median by usec", 2), Column("missing", "lost", 0),
         Column("cpu_ns", "processor ns per packet", 0)],
        {"gap_error_usec": False, "cpu_ns": False}, cases, job=jobs.paced_group,
        group_of=lambda case: 100 if case.setting["rate"] == 100 else None)


# ---- partner streams and long tests

def pair_rows(vorn, packets, ip_length, batches):
    ask = {
        "vorn": [vorn, "--client", f"-E{packets}", f"-e{batches}", f"-l{ip_length}", FAR_ADDRESS],
        "bare": [programs.bare("bare_commander"), FAR_ADDRESS, BLAST_PORT, CLIENT_PORT, str(packets), str(ip_length),
                 str(batches)],
    }

    def pair(title, role, asking, answering):
        return Row(title, role, ask[asking], output=asking, far_end=answering, far_program=vorn)

    return {
        "vorn": pair("vorn --client, vorn --server", "vorn", "vorn", "vorn"),
        "bare": pair("bare pair", "bare", "bare", "bare"),
        "vorn asks": pair("vorn --client, bare monitor", "mixed", "vorn", "bare"),
        "vorn answers": pair("bare commander, vorn --server", "mixed", "bare", "vorn"),
    }


PARTNER_COLUMNS = [
    Column("batches", "batches/s", 1), Column("cpu_usec", "asking side's processor usec per batch", 1),
    Column("lost", "packets lost", 0), Column("bad", "bad batches", 0),
]


def partner_table(vorn, quick):
    goals = [Goal("batches", "bare", 0.85), Goal("lost", "", 0, at_least=False), Goal("bad", "", 0, at_least=False)]
    cases = [Case(f"{packets} x 1472 bytes, {title}",
                  list(pair_rows(vorn, packets, 1500, batches // (5 if quick else 1)).values()),
                  {"answers": answers}, goals)
             for answers, title in (("own call", "received on the sender's core"),)
             for packets, batches in ((50, 20000), (200, 6000))]
    return Table(
        "partner", "Partner stream, back to back",
        "One side asks, the other streams at once, each on a core of its own; a batch ends with its last packet. The "
        "mixed pairs show which side costs what.",
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
    "echo": echo_table,
    "sweep": sweep_table,
    "pacing": pacing_table,
    "partner": partner_table,
    "start": start_table,
    "size": size_table,
    "long": long_table,
}
