"""The tables of speed, size and memory as data: which programs do which job, and what Vorn has to reach."""

import dataclasses

from harness import jobs
from harness.figures import Case, Column, Goal, Row, Table
from harness.lab import FAR_ADDRESS, FULL_RANGE, LOOPBACK_ADDRESS, SPARSE_HOSTS, SPARSE_RANGE, WIDE_RANGE
from harness.measuring import CLIENT_PORT, TEST_PORT, bare


def at_most(figure, limit, against=""):
    return Goal(figure, against, limit, at_least=False)


# ---- blast

BLAST_SECONDS = 2


def bare_blasts(carrier, kind, size, far_end=""):
    command = f"{bare('bare_blast')} {carrier} {FAR_ADDRESS} {kind} {size} {BLAST_SECONDS}"
    return [Row(f"bare sendmmsg loop, {per_call}", "bare", f"{command} {per_call}", "bare", far_end)
            for per_call in (32, 1)]


def udp_blast(vorn, payload, goals, title="", **setting):
    rows = [Row("vorn", "vorn", f"{vorn} -u -U -i -e -d0 -S{BLAST_SECONDS} -l{payload + 28} {FAR_ADDRESS}", "vorn",
                "sink"),
            *bare_blasts("udp", TEST_PORT, payload, "sink"),
            Row("iperf3 -u -b 0", "peer", f"iperf3 -c {FAR_ADDRESS} -u -b 0 -l {payload} -t {BLAST_SECONDS}",
                far_end="iperf3")]
    return Case(f"UDP, {payload} bytes{title}", rows, setting, goals)


def icmp_blast(vorn, message, one_way):
    title, kind, flag = ("replies (-U -i)", 0, "-U") if one_way else ("requests (-i), all answered", 8, "")
    rows = [Row("vorn", "vorn", f"{vorn} {flag} -i -e -d0 -S{BLAST_SECONDS} -l{message + 20} {FAR_ADDRESS}", "vorn"),
            *bare_blasts("icmp", kind, message),
            Row("hping3 --icmp --flood", "peer", f"hping3 --icmp --icmptype {kind} --flood -n -q -d {message - 8} "
                f"{FAR_ADDRESS}", "hping3", endless=True)]
    goals = [Goal("rate", "bare", 0.97), at_most("cpu_ns", 1.12, "bare"), Goal("rate", "peer", 1.7), at_most("lost", 0)]
    return Case(f"ICMP echo {title}, {message} bytes", rows, goals=goals)


def blast_table(vorn, _quick):
    # Vorn's pacing releases at most one packet per microsecond; what is left is for passes that come late.
    free = [Goal("rate", "", 0.95e6), at_most("lost", 0)]
    whole = [Goal("rate", "bare", 1), at_most("cpu_ns", 1.12, "bare"), at_most("lost", 0)]
    cases = [udp_blast(vorn, 1472, [*free, Goal("rate", "iperf3", 3)]), udp_blast(vorn, 20, free),
             udp_blast(vorn, 2972, whole, ", in fragments at an MTU of 1500", frames_per_packet=3),
             udp_blast(vorn, 1472, whole, ", checksum offload off", offload="off"),
             *(icmp_blast(vorn, message, one_way) for one_way in (True, False) for message in (1480, 36))]
    return Table(
        "blast", "Blast: packets per second",
        "One sender as fast as it can over veth. The rate is counted by the far end's IP layer over 1.2 s in the "
        "middle of the run; processor time is the sender's. Sizes are those behind the headers of IP or UDP. What a "
        "program says it sent and did not arrive is lost. A bare loop hands the kernel 32 packets in a call, or one.",
        [Column("rate", "M packets/s at the far end", 3, 1e-6), Column("cpu_ns", "processor ns per packet", 0),
         Column("lost", "lost on the way", 0), Column("queue_drops", "dropped by the far end's queue", 0)],
        {"rate": True, "cpu_ns": False}, cases, jobs.blast)


def far_table(vorn, quick):
    def case(payload, count):
        count //= 10 if quick else 1
        command = f"{vorn} -u -U -i -d0 -e{count} -l{payload + 28} {FAR_ADDRESS}"
        goals = [at_most(figure, 0) for figure in ("uncounted", "missing", "repeated", "damaged")]
        return Case(f"{count:,} UDP packets of {payload} bytes", [Row("vorn", "vorn", command)], {"count": count},
                    goals)
    return Table(
        "far", "What arrives of a blast",
        "`vorn -u -U -i -d0` over a device without checksum offload, so that each packet crosses it as a frame of its "
        "own with a checksum of its own. Every frame is captured at the far end, and its sequence number, its payload "
        "of zeros and both its checksums are checked. Packets that the capture missed are not called missing.",
        [Column("printed", "printed as sent", 0), Column("counted", "counted by the far end's kernel", 0),
         Column("uncounted", "difference", 0), Column("checked", "captured and checked", 0),
         Column("unchecked", "not checked", 0), Column("missing", "sequence numbers missing", 0),
         Column("repeated", "repeated", 0), Column("damaged", "payload or checksum wrong", 0)],
        {"damaged": False}, [case(100, 10000000), case(1472, 1000000)], jobs.far_end_check, rounds=1)


# ---- echo round trips and sweeps

PLACES = {"loopback": "loopback", "own call": "veth inline", "other core": "veth, other core"}
LOSS_COLUMNS = [Column("missing", "missing", 0), Column("discarded", "discarded by the far end's kernel", 0),
                Column("own_losses", "missing otherwise", 0)]


def bare_ping(carrier, first, hosts, count, window, silence_ms=1000, far_end=""):
    command = f"{bare('bare_ping')} {carrier} {first} {hosts} {count} 64 {window} {silence_ms}"
    return Row("bare pair", "bare", command, "bare", far_end)


def echo_case(vorn, udp, answers, window, count):
    host = LOOPBACK_ADDRESS if answers == "loopback" else FAR_ADDRESS
    flag, far, length = ("-u", "monitor", 92) if udp else ("", "", 84)
    floor = bare_ping(TEST_PORT if udp else "icmp", host, 1, count, window, 100, far)
    rows = [Row("vorn", "vorn", f"{vorn} {flag} -d0 -a{window} -e{count} -l{length} -s {host}", "vorn", far, vorn),
            floor, Row("bare loop, vorn --server", "mixed", floor.command, "bare", "vorn", vorn) if udp else
            Row("ping -f", "peer", f"ping -f -q -n -l {window} -c {count} -s 56 {host}", "ping")]
    goals = [Goal("rate", "bare", 0.95), Goal("rate", "peer", 1.05), at_most("own_losses", 0)]
    return Case(f"{'UDP' if udp else 'ICMP'}, {PLACES[answers]}, window {window}", rows,
                {"answers": answers, "expected": count}, goals)


def echo_table(vorn, quick):
    counts = {"loopback": 100000, "own call": 100000, "other core": 50000}
    cases = [echo_case(vorn, udp, answers, window, count // (5 if quick else 1)) for udp in (False, True)
             for answers, count in counts.items() for window in (1, 10, 50)]
    return Table(
        "echo", "Echo round trips: messages of 64 bytes",
        "Answered requests per second from start to exit, with a window of unanswered requests (`-a#`, "
        "`ping -f -l #`). The bare pair is a sendto and a recvmmsg with stamps. Over ICMP the kernel answers: within "
        "the sender's own call or, with receive packet steering, on the other core; there it now and then discards an "
        "answer, whoever asks. Over UDP a bare loop on the other core answers all alike.",
        [Column("rate", "k round trips/s", 1, 1e-3), Column("cpu_ns", "processor ns per round trip", 0), *LOSS_COLUMNS],
        {"rate": True, "cpu_ns": False}, cases, jobs.answered_requests)


def sweep_case(vorn, title, span, hosts, expected, goals, answers="own call"):
    first, last = span
    rows = [Row("vorn", "vorn", f"{vorn} -d0 -a500 -e1 -l84 -s -m -T500000 {first} {last}", "vorn"),
            bare_ping("icmp", first, hosts, 1, 500, 500),
            Row("fping -i 0 -r 0 -t 500", "peer", f"fping -i 0 -r 0 -t 500 -q -s -g {first} {last}", "fping")]
    return Case(title, rows, {"answers": answers, "expected": expected, "memory": True}, goals)


def sweep_table(vorn, _quick):
    wide = [at_most("wall_ms", 1.1, "bare"), at_most("wall_ms", 1 / 1.35, "peer"), at_most("memory_kb", 0.25, "peer"),
            at_most("own_losses", 0)]
    near = [at_most("wall_ms", 1, "peer"), at_most("own_losses", 0)]
    cases = [sweep_case(vorn, "65,534 hosts", WIDE_RANGE, 65534, 65534, wide),
             sweep_case(vorn, "65,534 hosts, from the other core", WIDE_RANGE, 65534, 65534, [], "other core"),
             sweep_case(vorn, "254 hosts", FULL_RANGE, 254, 254, near),
             sweep_case(vorn, "254 hosts, 50 answer", SPARSE_RANGE, 254, SPARSE_HOSTS, near)]
    return Table(
        "sweep", "Sweep of an address range",
        "One request of 64 bytes to each address, from start to exit, no line per host in any row. `missing` counts "
        "hosts that exist and were not found. fping has no window.",
        [Column("wall_ms", "ms", 2), Column("cpu_ns", "processor ns per address", 0), Column("answered", "found", 0),
         *LOSS_COLUMNS, Column("memory_kb", "peak memory kB", 0)],
        {"wall_ms": False, "cpu_ns": False, "memory_kb": False}, cases, jobs.answered_requests)


# ---- commanded streams and long tests

IP_LENGTH, PAYLOAD = 1500, 1472
STREAM_COLUMNS = [
    Column("batches", "batches/s", 1), Column("goodput", "goodput Mbit/s", 0), Column("lost", "packets lost", 0),
    Column("bad", "bad batches", 0), Column("cpu_usec", "asking side's processor usec per batch", 1),
]


def pair_rows(vorn, packets, ip_length, batches):
    ours = f"{vorn} --client -E{packets} -e{batches} -l{ip_length} {FAR_ADDRESS}"
    floor = f"{bare('bare_commander')} {FAR_ADDRESS} {TEST_PORT} {CLIENT_PORT} {packets} {ip_length} {batches}"
    return [Row("vorn --client, vorn --server", "vorn", ours, "vorn", "vorn", vorn),
            Row("bare pair", "bare", floor, "bare", "monitor"),
            Row("vorn --client, bare monitor", "mixed", ours, "vorn", "monitor"),
            Row("bare commander, vorn --server", "mixed", floor, "bare", "vorn", vorn)]


def streams_table(vorn, quick):
    def case(packets, batches):
        goals = [Goal("batches", "bare", 0.97 if packets == 50 else 0.95), at_most("lost", 1, "bare"),
                 at_most("bad", 1, "bare"), *([Goal("goodput", "peer", 1)] if packets == 5000 else [])]
        iperf = Row("iperf3 -u -b 0 -R -w 2m", "peer",
                    f"iperf3 -c {FAR_ADDRESS} -u -b 0 -R -w 2m -l {PAYLOAD} -t 3 --json", "iperf3", "iperf3")
        return Case(f"{packets:,} packets a batch",
                    [*pair_rows(vorn, packets, IP_LENGTH, batches // (5 if quick else 1)), iperf],
                    {"packets": packets, "payload": PAYLOAD}, goals)
    return Table(
        "streams", "Commanded streams, back to back",
        "One side asks, the other streams packets of 1500 bytes at once, each on a core of its own; a batch ends with "
        "its last packet. The bare pair is sendmmsg and recvmmsg with stamps, without segmentation, since packets that "
        "travel as one arrive as one. The mixed pairs show which side costs what. iperf3's goodput is what arrived.",
        STREAM_COLUMNS, {"batches": True, "goodput": True, "cpu_usec": False},
        [case(50, 5000), case(500, 1500), case(5000, 100), case(50000, 10)], jobs.stream)


def long_table(vorn, quick):
    def case(batches, limit):
        batches //= 10 if quick else 1
        _, floor, ours, _ = pair_rows(vorn, 2, 48, batches)
        return Case(f"{batches:,} batches of two packets", [dataclasses.replace(ours, role="vorn"), floor],
                    {"packets": 2, "payload": 20}, [at_most("growth", limit), at_most("bad", 0)])
    return Table(
        "long", "Long tests: what one batch more costs",
        "The far end is the bare monitor, which answers each command at once and notes when commands come. Growth is "
        "the median time of the last 1,000 batches over that of the first 1,000.",
        [Column("growth", "growth", 3), Column("first_usec", "first 1,000: usec per batch, median", 1),
         Column("last_usec", "last 1,000: usec per batch, median", 1), Column("memory_kb", "peak memory kB", 0),
         *STREAM_COLUMNS],
        {"growth": False, "memory_kb": False, "batches": True, "cpu_usec": False},
        [case(10000, 1.05), case(100000, 1.05), case(200000, 1.05), case(1000000, 1.1)], jobs.stream, rounds=1)


# ---- instructions, start-up and size

def instructions_table(vorn, _quick):
    def case(udp, window):
        flag, far = ("-u", "monitor") if udp else ("", "")
        command = f"{vorn} {flag} -d0 -a{window} -eREQUESTS -l92 -s {LOOPBACK_ADDRESS}"
        floor = bare_ping(TEST_PORT if udp else "icmp", LOOPBACK_ADDRESS, 1, "REQUESTS", window, far_end=far)
        return Case(f"{'UDP' if udp else 'ICMP'}, window {window}", [Row("vorn", "vorn", command, far_end=far), floor],
                    {"requests": (1000, 11000)})
    return Table(
        "instructions", "Instructions of a round trip",
        "Of the program itself, in user space, as callgrind counts them over loopback: what each of the requests "
        "between a run of 1,000 and one of 11,000 costs.",
        [Column("instructions", "instructions per round trip", 0)], {"instructions": False},
        [case(udp, window) for udp in (False, True) for window in (1, 10, 50)], jobs.instructions, rounds=1)


def start_table(vorn, quick):
    def case(title, host):
        rows = [Row("vorn -e1 -a1", "vorn", f"{vorn} -e1 -a1 {host}"), bare_ping("icmp", host, 1, 1, 1),
                Row("fping", "peer", f"fping {host}"), Row("ping -c1", "mixed", f"ping -n -c1 {host}")]
        return Case(title, rows, {"runs": 40 if quick else 200},
                    [at_most("wall_ms", 1, "peer"), at_most("memory_kb", 1, "peer"), at_most("size_kb", 100)])
    return Table(
        "start", "Start to exit of one echo",
        "Median of 200 runs in each round, process creation included; the program's size is without symbols.",
        [Column("wall_ms", "ms", 3), Column("cpu_ms", "processor ms", 3), Column("memory_kb", "peak memory kB", 0),
         Column("size_kb", "on disk kB (1000 bytes)", 1)],
        {"wall_ms": False, "memory_kb": False, "size_kb": False},
        [case("over veth", FAR_ADDRESS), case("loopback", LOOPBACK_ADDRESS)], jobs.start_to_exit)


TABLES = {"blast": blast_table, "far": far_table, "echo": echo_table, "sweep": sweep_table, "streams": streams_table,
          "long": long_table, "instructions": instructions_table, "start": start_table}
