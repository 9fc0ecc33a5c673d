"""The tables that hold printed figures against a capture, as data."""

from harness import truth, wire
from harness.figures import Case, Column, Row, Table
from harness.lab import FAR_ADDRESS
from harness.measuring import IPERF_PORT
from harness.tables import IP_LENGTH, PAYLOAD, at_most

STAMPS = ("Packets are captured on the device, with the kernel's stamps, and the true figures computed from these "
          "alone; a run of which the capture missed a frame is not judged. ")


# ---- batches

BATCHES = {  # (delay, packets): batches
    (0, 50): 1000, (0, 500): 300, (10, 50): 1000, (10, 500): 300,
    (100, 50): 1000, (100, 500): 100, (1000, 50): 100, (1000, 500): 20,
}


def commander(vorn, delay, packets, batches):
    command = f"{vorn} --client -d{delay} -E{packets} -l{IP_LENGTH} -e{batches} {FAR_ADDRESS}"
    return Row("vorn", "vorn", command, far_end="vorn", vorn=vorn)


def rates_table(vorn, quick):
    cases = [Case(f"-d{delay}, {packets} packets",
                  [commander(vorn, delay, packets, max(10, batches // (5 if quick else 1)))],
                  {"delay": delay, "payload": PAYLOAD}, [at_most("error_95", 1)])
             for (delay, packets), batches in BATCHES.items()]
    return Table(
        "rates", "Truth: the rate and the buffer of a batch",
        STAMPS + "`vorn --client -l1500` against `vorn --server`, each on a core of its own; arrivals at the "
        "commander's device. The error is the printed rate's, as a share of the true one. Rate and buffer are printed "
        "with one decimal.",
        [Column("printed", "printed Mbit/s, median", 1), Column("true", "true, median", 1),
         Column("error", "off by %, median", 3), Column("error_95", "off by %, 95 % of batches", 3),
         Column("buffer", "true buffer msec, median", 3), Column("buffer_error", "buffer off by msec, 95 %", 3)],
        {"error_95": False}, cases, truth.batch_rates)


# ---- losses

LOST_EVERY = 37  # no divisor of a batch: the loss strikes every place in it by turns
TIMEOUT_USEC = 20000


def losses_table(vorn, quick):
    def echo_case(flag, window):
        command = f"{vorn} {flag} -d0 -a{window} -e{5000 // share} -T{TIMEOUT_USEC} -s -m {FAR_ADDRESS}"
        row = Row("vorn", "vorn", command, far_end="vorn" if flag else "", vorn=vorn)
        return Case(f"{'UDP' if flag else 'ICMP'} echo, window {window}", [row],
                    {"batch": 0, "every": LOST_EVERY, "timeout": TIMEOUT_USEC}, goals)
    share, goals = 5 if quick else 1, [at_most("wrong", 0)]
    cases = [Case(f"batches of {packets}, -d{delay}", [commander(vorn, delay, packets, batches // share)],
                  {"batch": packets, "every": LOST_EVERY}, goals)
             for packets, delay, batches in ((50, 0, 200), (500, 10, 100))]
    cases += [echo_case(flag, window) for flag in ("", "-u") for window in (1, 50)]
    return Table(
        "losses", "Truth: losses",
        STAMPS + f"Of what the far end sends, every {LOST_EVERY}th frame is dropped before the capture. Of batches "
        "each line's packets, losses and bad samples are compared, of echo tests the packets sent, received and "
        f"missing, where an answer counts within the {TIMEOUT_USEC} usec of -T.",
        [Column("printed", "printed as lost", 0), Column("true", "lost", 0), Column("bad", "bad batches", 0),
         Column("wrong", "wrong figures", 0)],
        {"wrong": False}, cases, truth.losses)


# ---- round trips

def trip_case(vorn, flag, window, delay, busy, count):
    rows = [Row("vorn", "vorn", f"{vorn} {flag} -a{window} -d{delay} -e{count} -l84 {FAR_ADDRESS}", "vorn",
                "vorn" if flag else "", vorn)]
    if delay and not flag:
        rows.append(Row("fping", "peer", f"fping -i 0 -p {delay / 1e3:g} -c {count} {FAR_ADDRESS}", "fping"))
    if delay >= 1000 and not flag:  # ping knows no shorter interval
        rows.append(Row("ping", "peer", f"ping -n -i {delay / 1e6} -c {count} {FAR_ADDRESS}", "ping"))
    title = f"{'UDP' if flag else 'ICMP'}, window {window}, {f'{delay} usec apart' if delay else '-d0'}"
    goals = [at_most("error_999", 5 if busy else 1.5)] if delay else [at_most("error", 5)]
    return Case(title + (", busy cores" if busy else ""), rows, {"answers": "other core", "busy": busy}, goals)


def trips_table(vorn, quick):
    cases = [trip_case(vorn, flag, 1, delay, busy, count // (5 if quick else 1)) for flag in ("", "-u")
             for delay, count in ((1000, 4000), (200, 10000)) for busy in (False, True)]
    cases += [trip_case(vorn, flag, window, 0, False, 4000 if quick else 20000) for flag in ("", "-u")
              for window in (1, 10, 50)]
    return Table(
        "trips", "Truth: round trips",
        STAMPS + "Every answer has its line. The true time is from the request's stamp to the answer's at the sender's "
        "device; answers come from the other core, ICMP from the kernel and UDP from `vorn --server`. With busy cores "
        "a loop runs on each. Off is printed less true: its median, and what 99 %, 99.9 % and all of the answers are "
        "off by at most, either way.",
        [Column("error", "off by usec, median", 2), Column("error_99", "99 %", 2), Column("error_999", "99.9 %", 2),
         Column("worst", "worst", 2), Column("printed", "printed usec, median", 1), Column("true", "true, median", 1),
         Column("unmatched", "printed or answered, not both", 0)],
        {"error_999": False}, cases, truth.round_trips)


# ---- gaps

GAP_RATES = (50, 100, 1000, 5000, 10000)
GAP_SECONDS, GAP_ROUNDS = 6, 3
FIRST_RELEASE_USEC = 10000
IPERF_BYTES = 1000


ECHO_STREAM, DATA_STREAM, IPERF_STREAM = (False, wire.ICMP_REQUEST), (True, wire.UDP_DATA), (True, IPERF_PORT)


def gap_case(vorn, rate, seconds):
    period, count = 1000000 // rate, rate * seconds
    burst, msec = max(1, FIRST_RELEASE_USEC // period), f"{period / 1000:g}"

    def ours(name, options, stream, **more):
        return Row(name, "vorn", f"{vorn} {options} -d{period} {FAR_ADDRESS}", vorn=vorn, first_burst=burst,
                   stream=stream, **more)

    rows = [
        ours("vorn -i", f"-i -e{count}", ECHO_STREAM),
        ours("vorn -u -U -i", f"-u -U -i -e{count}", DATA_STREAM, far_end="sink"),
        ours("vorn -a100", f"-a100 -s -m -e{count}", ECHO_STREAM),
        ours("vorn --server, commanded", f"--client -E{count} -l200 -e1", DATA_STREAM, far_end="vorn",
             sends_from_far=True),
        Row("fping", "peer", f"fping -q -i 0 -p {msec} -c {count} {FAR_ADDRESS}", stream=ECHO_STREAM),
        Row("iperf3 -u", "peer", f"iperf3 -c {FAR_ADDRESS} -u -l {IPERF_BYTES} -b {rate * IPERF_BYTES * 8} "
            f"-t {seconds}", far_end="iperf3", first_burst=2, stream=IPERF_STREAM),
    ]
    if period >= 1000:  # ping knows no shorter interval
        rows.append(Row("ping", "peer", f"ping -n -q -i {period / 1e6} -c {count} {FAR_ADDRESS}", stream=ECHO_STREAM))
    goals = [at_most("off_99", 1.2, "fping"), at_most("rate_error", 0.01)]
    goals += [at_most("together", 0.5)] if rate <= 1000 else []
    return Case(f"{rate} packets/s", rows, {"period": period, "count": count}, goals)


def gaps_table(vorn, quick):
    seconds = 2 if quick else GAP_SECONDS
    return Table(
        "gaps", "Truth: the gaps of a paced stream",
        STAMPS + "The stream is captured at its sender's device, after the first release, which is a burst of 10 ms "
        "worth of packets; a frame that carries several counts as several. The deviation is that of each gap from the "
        "period asked for; sent together are two packets less than 20 usec, and less than a tenth of the period, "
        f"apart. iperf3 asks for the same packets per second of {IPERF_BYTES} bytes. Each run takes {seconds} s.",
        [Column("off_99", "gap off by usec, 99 %", 1), Column("off", "gap off by usec, median", 1),
         Column("together", "sent together %", 2), Column("rate_error", "mean rate off by %", 4),
         Column("cpu_ns", "processor ns per packet", 0)],
        {"off_99": False}, [gap_case(vorn, rate, seconds) for rate in GAP_RATES], truth.gaps, rounds=GAP_ROUNDS)


TRUTH_TABLES = {"rates": rates_table, "losses": losses_table, "trips": trips_table, "gaps": gaps_table}
