"""The tables that hold printed figures against a capture, as data."""

from harness import truth, wire
from harness.lab import FAR_ADDRESS
from harness.jobs import IPERF_PORT
from harness.tables import Case, Column, Goal, Row, Table

UDP_AND_IP_BYTES = 28

STAMPS = ("Packets are captured on the device, with the kernel's stamps, and the true figures computed from these "
          "alone; a run of which the capture missed a frame is not judged. ")


# ---- batches

BATCH_BYTES = 1500
BATCHES = {  # (delay, packets): batches
    (0, 50): 1000, (0, 500): 300, (10, 50): 1000, (10, 500): 300,
    (100, 50): 1000, (100, 500): 100, (1000, 50): 100, (1000, 500): 20,
}


def commander(vorn, delay, packets, batches):
    command = [vorn, "--client", f"-d{delay}", f"-E{packets}", f"-l{BATCH_BYTES}", f"-e{batches}", FAR_ADDRESS]
    return Row("vorn", "vorn", command, far_end="vorn", far_program=vorn)


def rate_case(vorn, delay, packets, batches):
    setting = {"delay": delay, "payload": BATCH_BYTES - UDP_AND_IP_BYTES}
    goals = [Goal("error_95", "", 1, at_least=False)]
    return Case(f"-d{delay}, {packets} packets", [commander(vorn, delay, packets, batches)], setting, goals)


def rates_table(vorn, quick):
    cases = [rate_case(vorn, delay, packets, max(10, batches // (5 if quick else 1)))
             for (delay, packets), batches in BATCHES.items()]
    return Table(
        "rates", "Truth: the rate and the buffer of a batch",
        STAMPS + "`vorn --client -l1500` against `vorn --server`, each on a core of its own; arrivals at the "
        "commander's device. The error is the printed rate's, with its one decimal, as a share of the true one; "
        "batches whose true span is below 200 usec are judged apart. The buffer is printed with one decimal, too.",
        [Column("printed", "printed Mbit/s, median", 1), Column("true", "true, median", 1),
         Column("batches", "batches", 0), Column("error", "off by %, median", 3),
         Column("error_95", "off by %, 95 % of batches", 3), Column("short", "batches below 200 usec", 0),
         Column("short_error", "these: off by %, median", 3),
         Column("short_error_95", "these: off by %, 95 %", 3),
         Column("buffer", "true buffer msec, median", 3),
         Column("buffer_error", "buffer off by msec, 95 %", 3)],
        {}, cases, job=truth.batch_rates)


# ---- losses

LOST_EVERY = 37  # no divisor of a batch: the loss strikes every place in it by turns
LOSS_TIMEOUT_USEC = 20000


def loss_case(vorn, carrier, window, count, goals):
    command = [vorn, *carrier, "-d0", f"-a{window}", f"-e{count}", f"-T{LOSS_TIMEOUT_USEC}", "-s", "-m", FAR_ADDRESS]
    row = Row("vorn", "vorn", command, far_end="vorn" if carrier else "", far_program=vorn)
    return Case(f"{'UDP' if carrier else 'ICMP'} echo, window {window}", [row],
                {"batch": 0, "every": LOST_EVERY, "timeout": LOSS_TIMEOUT_USEC}, goals)


def losses_table(vorn, quick):
    share = 5 if quick else 1
    goals = [Goal("wrong", "", 0, at_least=False)]
    cases = [Case(f"batches of {packets}, -d{delay}", [commander(vorn, delay, packets, batches // share)],
                  {"batch": packets, "every": LOST_EVERY}, goals)
             for packets, delay, batches in ((50, 0, 200), (500, 10, 100))]
    cases += [loss_case(vorn, carrier, window, 5000 // share, goals) for carrier in ([], ["-u"]) for window in (1, 50)]
    return Table(
        "losses", "Truth: losses",
        STAMPS + f"Of what the far end sends, every {LOST_EVERY}th frame is dropped before the capture. Of batches "
        "each line's packets, losses and bad samples are compared, of echo tests the packets sent, received and "
        f"missing, where an answer counts within the {LOSS_TIMEOUT_USEC} usec of -T.",
        [Column("printed", "printed as lost", 0), Column("true", "lost", 0), Column("bad", "bad batches", 0),
         Column("wrong", "wrong figures", 0)],
        {}, cases, job=truth.losses)


# ---- round trips

def trip_case(vorn, carrier, window, delay, count):
    row = Row("vorn", "vorn", [vorn, *carrier, f"-a{window}", f"-d{delay}", f"-e{count}", "-l84", FAR_ADDRESS],
              output="vorn", far_end="vorn" if carrier else "", far_program=vorn)
    peers = []
    goals = [Goal("error", "", 5, at_least=False)]
    if delay and not carrier:
        peers = [Row("ping", "peer", ["ping", "-n", "-i", f"{delay / 1e6}", "-c", str(count), FAR_ADDRESS],
                     output="ping"),
                 Row("fping", "peer", ["fping", "-i", "0", "-p", f"{delay / 1e3:g}", "-c", str(count), FAR_ADDRESS],
                     output="fping")]
        goals.append(Goal("error", "peer", 1, at_least=False))
    name = f"{'UDP' if carrier else 'ICMP'}, window {window}, {f'{delay} usec apart' if delay else '-d0'}"
    return Case(name, [row, *peers], {"answers": "other core"}, goals)


def trips_table(vorn, quick):
    spaced, flood = (1000, 4000) if quick else (5000, 50000)
    cases = [trip_case(vorn, carrier, window, delay, spaced if delay else flood)
             for carrier in ([], ["-u"]) for window, delay in ((1, 1000), (1, 0), (10, 0), (50, 0))]
    return Table(
        "trips", "Truth: round trips",
        STAMPS + "Every answer has its line. The true time is from the request's stamp to the answer's at the sender's "
        "device; answers come from the other core, ICMP from the kernel and UDP from `vorn --server`. The error is "
        "printed less true.",
        [Column("printed", "printed usec, median", 1), Column("true", "true, median", 1),
         Column("error", "off by usec, median", 2), Column("error_95", "off by usec, 95 %", 1),
         Column("unmatched", "printed or answered, not both", 0)],
        {"error": False}, cases, job=truth.round_trips)


# ---- gaps

GAP_RATES = (50, 100, 1000, 5000, 10000)
GAP_SECONDS = 6
GAP_ROUNDS = 3
GAP_WINDOW = 100
FIRST_RELEASE_USEC = 10000
IPERF_BYTES = 1000


def is_echo_packet(packet):
    return packet.protocol == wire.ICMP_PROTOCOL and packet.kind == wire.ICMP_REQUEST


def is_batch_packet(packet):
    return packet.protocol == wire.UDP_PROTOCOL and packet.kind == wire.UDP_DATA


def is_iperf_packet(packet):
    return packet.protocol == wire.UDP_PROTOCOL and packet.port == IPERF_PORT


def gap_case(vorn, rate, seconds):
    period, count = 1000000 // rate, rate * seconds
    burst = max(1, FIRST_RELEASE_USEC // period)
    pace = [f"-d{period}", f"-e{count}"]
    rows = [
        Row("vorn -i", "vorn", [vorn, "-i", *pace, FAR_ADDRESS], first_burst=burst, is_stream_packet=is_echo_packet),
        Row("vorn -a100", "vorn", [vorn, f"-a{GAP_WINDOW}", "-s", "-m", *pace, FAR_ADDRESS], first_burst=burst,
            is_stream_packet=is_echo_packet),
        Row("vorn --server, commanded", "vorn", [vorn, "--client", f"-d{period}", f"-E{count}", "-l200", "-e1",
                                                 FAR_ADDRESS], far_end="vorn", far_program=vorn, first_burst=burst,
            is_stream_packet=is_batch_packet, sends_from_far=True),
        Row("fping", "peer", ["fping", "-q", "-i", "0", "-p", f"{period / 1000:g}", "-c", str(count), FAR_ADDRESS],
            is_stream_packet=is_echo_packet),
        Row("iperf3 -u", "peer", ["iperf3", "--client", FAR_ADDRESS, "-u", "-l", str(IPERF_BYTES), "-b",
                                  str(rate * IPERF_BYTES * 8), "-t", str(seconds)], far_end="iperf3", first_burst=2,
            is_stream_packet=is_iperf_packet),
    ]
    if period >= 1000:  # ping knows no shorter interval
        rows.append(Row("ping", "peer", ["ping", "-n", "-q", "-i", f"{period / 1e6}", "-c", str(count), FAR_ADDRESS],
                        is_stream_packet=is_echo_packet))
    goals = [Goal("off_99", "fping", 1.2, at_least=False), Goal("rate_error", "", 0.01, at_least=False)]
    if rate <= 1000:
        goals.append(Goal("together", "", 0.5, at_least=False))
    return Case(f"{rate} packets/s", rows, {"period": period, "count": count}, goals)


def gaps_table(vorn, quick):
    seconds = 2 if quick else GAP_SECONDS
    return Table(
        "gaps", "Truth: the gaps of a paced stream",
        STAMPS + "The stream is captured at its sender's device, after the first release, which is a burst of 10 ms "
        "worth of packets. The deviation is that of each gap from the period asked for; sent together are two packets "
        "less than 20 usec, and less than a tenth of the period, apart. iperf3 asks for the same packets per second of "
        f"{IPERF_BYTES} bytes. Each run takes {seconds} s; {GAP_ROUNDS} rounds at most.",
        [Column("together", "sent together %", 2), Column("off", "gap off by usec, median", 1),
         Column("off_99", "gap off by usec, 99 %", 1), Column("rate_error", "mean rate off by %", 4),
         Column("cpu_ns", "processor ns per packet", 0)],
        {}, [gap_case(vorn, rate, seconds) for rate in GAP_RATES], job=truth.gaps,
        rounds=GAP_ROUNDS)


TRUTH_TABLES = {
    "rates": rates_table,
    "losses": losses_table,
    "trips": trips_table,
    "gaps": gaps_table,
}
