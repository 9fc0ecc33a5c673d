"""Printed figures held against a capture of the same run."""

import contextlib
import math
import re
import statistics

from harness import wire
from harness.jobs import numbers_in
from harness.measuring import NoFigures, busy_cores, far_end, run_measured


def percentile(values, share):
    """The smallest value that this share of them does not exceed."""
    return sorted(values)[math.ceil(share * len(values)) - 1]


def captured_run(lab, case, row):
    """(what the program printed, the packets on the wire, its cost)."""
    with far_end(lab.far, row), wire.Capture(lab, "far" if row.sends_from_far else "near") as capture:
        with busy_cores(lab.far) if case.setting.get("busy") else contextlib.nullcontext():
            cost, text = run_measured(lab.near, row.command)
        return text, capture.packets(), cost


# ---- batches

BATCH_LINE = re.compile(
    r"^\s*(\d+):(.) Pkts: +(\d+)/\d+ +([\d.]+) mbps .* ([\d.]+) msec   Lost: (\d+) +Bad Samples: (\d+)", re.MULTILINE)


def printed_batches(text):
    """(batch as on the wire, packets, Mbit/s, buffer in msec, lost so far, bad so far) of each line."""
    if not BATCH_LINE.search(text):
        raise NoFigures(text)
    return [(int(number) - 1, int(received), float(rate), float(buffer), int(lost), int(bad))
            for number, _, received, rate, buffer, lost, bad in BATCH_LINE.findall(text)]


def batch_rates(lab, case, row):
    text, packets, _ = captured_run(lab, case, row)
    arrivals = wire.batches_in(packets)
    printed, true, errors, buffers, buffer_errors = [], [], [], [], []
    for batch, _, rate, buffer, _, _ in printed_batches(text):
        printed.append(rate)
        true.append(wire.rate_mbps(arrivals[batch], case.setting["payload"]))
        buffers.append(wire.playout_msec(arrivals[batch], case.setting["delay"]))
        errors.append(abs(rate / true[-1] - 1) * 100 if true[-1] else 0)
        buffer_errors.append(abs(buffer - buffers[-1]))
    return {"printed": statistics.median(printed), "true": statistics.median(true), "error": statistics.median(errors),
            "error_95": percentile(errors, 0.95), "buffer": statistics.median(buffers),
            "buffer_error": percentile(buffer_errors, 0.95)}


# ---- losses

def losses(lab, case, row):
    with lab.losing(case.setting["every"]):
        text, packets, _ = captured_run(lab, case, row)
    return (batch_losses if case.setting["batch"] else echo_losses)(case, text, packets)


def batch_losses(case, text, packets):
    size, lines = case.setting["batch"], printed_batches(text)
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
    sent, received, missing = numbers_in(text, r"(\d+) tx pkts, (\d+) rx pkts, (\d+) missing")
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


def round_trips(lab, case, row):
    text, packets, _ = captured_run(lab, case, row)
    pattern, usec = PRINTED_TRIPS[row.output]
    true = wire.round_trips_usec(packets)
    printed = {int(sequence): float(time) * usec for sequence, time in re.findall(pattern, text, re.MULTILINE)}
    both = printed.keys() & true.keys()
    if not both:
        raise NoFigures(text)
    errors = [printed[sequence] - true[sequence] for sequence in both]
    off = [abs(error) for error in errors]
    return {"printed": statistics.median(printed[sequence] for sequence in both),
            "true": statistics.median(true[sequence] for sequence in both), "error": statistics.median(errors),
            "error_99": percentile(off, 0.99), "error_999": percentile(off, 0.999), "worst": max(off),
            "unmatched": len(printed.keys() ^ true.keys())}


# ---- gaps

def gaps(lab, case, row):
    _text, packets, cost = captured_run(lab, case, row)
    udp, kind = row.stream
    ours = [packet for packet in packets if packet.sent and packet.udp == udp]
    stamps = [packet.nsec for packet in ours if kind in (packet.kind, packet.port)]
    if len(stamps) < case.setting["count"] / 2:
        raise NoFigures(f"{len(stamps)} packets captured")
    figures = gap_figures(stamps[row.first_burst:], case.setting["period"] * 1000)
    return figures if row.sends_from_far else {**figures, "cpu_ns": cost.cpu * 1e9 / len(stamps)}


TOGETHER_NSEC = 20000


def gap_figures(stamps, period):
    """Of a stream after its first release, which is a burst; all in nanoseconds. Sent together are two packets with
    less than 20 usec, and less than a tenth of the period, between them."""
    between = [later - earlier for earlier, later in zip(stamps, stamps[1:])]
    off = [abs(gap - period) for gap in between]
    together = sum(gap < min(TOGETHER_NSEC, period / 10) for gap in between)
    return {"together": together / len(between) * 100, "off": statistics.median(off) / 1000,
            "off_99": percentile(off, 0.99) / 1000,
            "rate_error": abs(period * len(between) / (stamps[-1] - stamps[0]) - 1) * 100}
