"""Printed figures held against a capture of the same run."""

import contextlib
import math
import re
import statistics
import subprocess

from harness import wire
from harness.jobs import IPERF_PORT, TEST_PORT
from harness.lab import LINK
from harness.measuring import Helper, run_measured
from harness.wire import Capture

CAPTURED_FRAMES = 400000  # of the longest run, and some
GIVE_UP_SECONDS = 120


def percentile(values, share):
    """The smallest value that this share of them does not exceed."""
    return sorted(values)[math.ceil(share * len(values)) - 1]


@contextlib.contextmanager
def far_end(lab, row):
    if row.far_end == "vorn":
        with Helper(lab, [row.far_program, "--server"], port=TEST_PORT):
            yield
    elif row.far_end == "iperf3":
        with Helper(lab, ["iperf3", "--server", "--one-off"], port=IPERF_PORT):
            yield
    else:
        yield


def captured_run(bench, case, row):
    """(what the program printed, the packets on the wire, its cost); packets are None when there is nothing to
    judge."""
    end = "far" if row.sends_from_far else "near"
    with far_end(bench.lab, row), Capture(bench.lab, end, CAPTURED_FRAMES) as capture:
        cost, text = run_measured(bench.lab, row.command, give_up_after=GIVE_UP_SECONDS)
        packets = capture.packets()
    if cost is None or not packets:
        bench.complain(case, row, text if cost is None else "the capture missed packets")
        return text, None, cost
    return text, packets, cost


# ---- batches

BATCH_LINE = re.compile(
    r"^\s*(\d+):(.) Pkts: +(\d+)/\d+ +([\d.]+) mbps .* ([\d.]+) msec   Lost: (\d+) +Bad Samples: (\d+)", re.MULTILINE)
SHORT_SPAN_NSEC = 200000


def printed_batches(text):
    """(batch as on the wire, packets, Mbit/s, buffer in msec, lost so far, bad so far) of each line."""
    return [(int(number) - 1, int(received), float(rate), float(buffer), int(lost), int(bad))
            for number, _, received, rate, buffer, lost, bad in BATCH_LINE.findall(text)]


def batch_rates(bench, case, row):
    text, packets, _ = captured_run(bench, case, row)
    if packets is None:
        return {}
    arrivals, setting = wire.batches_in(packets), case.setting
    printed_rates, true_rates, errors, short_errors, buffers, buffer_errors = [], [], [], [], [], []
    for batch, _, rate, buffer, _, _ in printed_batches(text):
        true_rate = wire.rate_mbps(arrivals[batch], setting["payload"])
        true_buffer = wire.playout_msec(arrivals[batch], setting["delay"])
        printed_rates.append(rate)
        true_rates.append(true_rate)
        buffers.append(true_buffer)
        buffer_errors.append(abs(buffer - true_buffer))
        if true_rate:
            short = wire.span_nsec(arrivals[batch]) < SHORT_SPAN_NSEC
            (short_errors if short else errors).append(abs(rate - true_rate) / true_rate * 100)
    if not true_rates:
        bench.complain(case, row, text)
        return {}
    figures = {"printed": statistics.median(printed_rates), "true": statistics.median(true_rates),
               "batches": len(errors), "short": len(short_errors), "buffer": statistics.median(buffers),
               "buffer_error": percentile(buffer_errors, 0.95)}
    if errors:
        figures.update(error=statistics.median(errors), error_95=percentile(errors, 0.95))
    if short_errors:
        figures.update(short_error=statistics.median(short_errors), short_error_95=percentile(short_errors, 0.95))
    return figures


# ---- losses

@contextlib.contextmanager
def lossy(lab, every):
    """Of what the far end sends, every so many-th frame vanishes before it reaches the near device."""
    rules = f"""table netdev lossy {{
        chain out {{
            type filter hook egress device "{LINK}" priority 0;
            numgen inc mod {every} {every // 2} drop
        }}
    }}"""
    subprocess.run(lab.command(lab.far, ["nft", "-f", "-"]), input=rules, text=True, check=True)
    try:
        yield
    finally:
        subprocess.run(lab.command(lab.far, ["nft", "delete", "table", "netdev", "lossy"]), check=True)


def losses(bench, case, row):
    with lossy(bench.lab, case.setting["every"]):
        text, packets, _ = captured_run(bench, case, row)
    if packets is None:
        return {}
    figures = (batch_losses if case.setting["batch"] else echo_losses)(case, text, packets)
    if figures is None:
        bench.complain(case, row, text)
    return figures or {}


def batch_losses(case, text, packets):
    lines, size = printed_batches(text), case.setting["batch"]
    if not lines:
        return None
    arrivals, true_lost, true_bad, wrong = wire.batches_in(packets), 0, 0, 0
    for batch, received, _, _, lost, bad in lines:
        came = arrivals[batch]
        if 0 in came and size - 1 in came:
            true_lost += size - len(came)
        else:
            true_bad += 1
        wrong += (received, lost, bad) != (len(came), true_lost, true_bad)
    return {"printed": lines[-1][4], "true": true_lost, "bad": true_bad, "wrong": wrong}


def echo_losses(case, text, packets):
    found = re.search(r"(\d+) tx pkts, (\d+) rx pkts, (\d+) missing", text)
    if not found:
        return None
    sent, received, missing = (int(number) for number in found.groups())
    true_sent = sum(map(wire.is_request, packets))
    true_received = sum(usec < case.setting["timeout"] for usec in wire.round_trips_usec(packets).values())
    wrong = (sent != true_sent) + (received != true_received) + (missing != true_sent - true_received)
    return {"printed": missing, "true": true_sent - true_received, "wrong": wrong}


# ---- round trips

PRINTED_TRIPS = {  # sequence number, time; the unit's usec
    "vorn": (r"^\s*(\d+): Received  Echo Reply  in +([\d.]+)s", 1e6),
    "ping": (r"icmp_seq=(\d+) .*time=([\d.]+) ms", 1e3),
    "fping": (r"\[(\d+)\], \d+ bytes, ([\d.]+) ms", 1e3),
}


def round_trips(bench, case, row):
    text, packets, _ = captured_run(bench, case, row)
    if packets is None:
        return {}
    pattern, usec = PRINTED_TRIPS[row.output]
    true_trips = wire.round_trips_usec(packets)
    printed = {int(sequence): float(time) * usec for sequence, time in re.findall(pattern, text, re.MULTILINE)}
    both = printed.keys() & true_trips.keys()
    if not both:
        bench.complain(case, row, text)
        return {}
    errors = [printed[sequence] - true_trips[sequence] for sequence in both]
    return {
        "printed": statistics.median(printed[sequence] for sequence in both),
        "true": statistics.median(true_trips[sequence] for sequence in both),
        "error": statistics.median(errors),
        "error_95": percentile([abs(error) for error in errors], 0.95),
        "unmatched": len(printed.keys() ^ true_trips.keys()),
    }


# ---- gaps

def gaps(bench, case, row):
    _text, packets, cost = captured_run(bench, case, row)
    if packets is None:
        return {}
    stamps = [packet.nsec for packet in packets if packet.sent and row.is_stream_packet(packet)]
    if len(stamps) < case.setting["count"] / 2:
        bench.complain(case, row, f"{len(stamps)} packets captured")
        return {}
    figures = gap_figures(stamps[row.first_burst:], case.setting["period"] * 1000)
    if not row.sends_from_far:
        figures["cpu_ns"] = cost.cpu * 1e9 / len(stamps)
    return figures


TOGETHER_NSEC = 20000


def gap_figures(stamps, period):
    """Of a stream after its first release, which is a burst; all in nanoseconds. Sent together are two packets with
    less than 20 usec, and less than a tenth of the period, between them."""
    between = [later - earlier for earlier, later in zip(stamps, stamps[1:])]
    off = [abs(gap - period) for gap in between]
    together = sum(gap < min(TOGETHER_NSEC, period / 10) for gap in between)
    return {
        "together": together / len(between) * 100,
        "off": statistics.median(off) / 1000,
        "off_99": percentile(off, 0.99) / 1000,
        "rate_error": abs(period * len(between) / (stamps[-1] - stamps[0]) - 1) * 100,
    }
