"""How each kind of row is run once. A job takes the bench, the case and the row and returns its figures by name."""

import contextlib
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import time

from harness.lab import DEVICE
from harness.measuring import (MEASURE_MEMORY, TEST_PORT, Helper, NoFigures, Running, bare, far_end,
                               peak_memory_kb, run_measured)

SETTLE_SECONDS = 0.2


def numbers_in(text, pattern):
    """The numbers that `pattern` captures in a program's output."""
    found = re.search(pattern, text)
    if not found:
        raise NoFigures(text)
    return [float(number) for number in found.groups()]


# ---- blast: a window of wall time in the middle of the run, counted at the far end

REPORTED_SENT = {"vorn": r"(\d+) tx pkts", "bare": r"sent (\d+)", "hping3": r"(\d+) packets transmitted"}
LEAD_IN_SECONDS, WINDOW_SECONDS = 0.4, 1.2


def blast(lab, case, row):
    frames = case.setting.get("frames_per_packet", 1)
    offload = lab.without_checksum_offload() if case.setting.get("offload") == "off" else contextlib.nullcontext()
    with offload, far_end(lab.far, row):
        time.sleep(SETTLE_SECONDS)
        before, dropped_before = lab.arrived(), lab.count("Udp", "RcvbufErrors")
        with Running(lab.near, row.command) as sender:
            time.sleep(LEAD_IN_SECONDS)
            start_time, start = time.monotonic(), lab.arrived()
            time.sleep(WINDOW_SECONDS)
            rate = (lab.arrived() - start) / (time.monotonic() - start_time) / frames
            if row.endless:
                sender.signal(signal.SIGINT)
            cost, text = sender.finish()
        time.sleep(SETTLE_SECONDS)
        arrived = (lab.arrived() - before) / frames
    lost = numbers_in(text, REPORTED_SENT[row.output])[0] - arrived if row.output else None
    return {"rate": rate, "cpu_ns": cost.cpu * 1e9 / arrived, "lost": lost,
            "queue_drops": lab.count("Udp", "RcvbufErrors") - dropped_before}


# ---- far: every packet of a blast, looked at where it arrives

CHECKED = ("checked", "unchecked", "missing", "repeated", "damaged")


def far_end_check(lab, case, row):
    checker = [bare("check_frames"), DEVICE, str(TEST_PORT), str(case.setting["count"])]
    with lab.without_checksum_offload(), Helper(lab.far, checker) as far:
        before = lab.arrived()
        _, text = run_measured(lab.near, row.command)
        time.sleep(SETTLE_SECONDS)
        counted = lab.arrived() - before
        checked = numbers_in(far.end(), " ".join(rf"{name} (\d+)" for name in CHECKED))
    sent = numbers_in(text, REPORTED_SENT["vorn"])[0]
    return {"printed": sent, "counted": counted, "uncounted": abs(sent - counted), **dict(zip(CHECKED, checked))}


# ---- echo and sweep: from start to exit

REPORTED = {
    "vorn": r"(\d+) tx pkts, (\d+) rx pkts",
    "ping": r"(\d+) packets transmitted, (\d+) received",
    "fping": r"(\d+) targets\s+(\d+) alive",
    "bare": r"sent (\d+) answered (\d+)",
}


def answered_requests(lab, case, row):
    expected = case.setting["expected"]
    with far_end(lab.near if case.setting["answers"] == "loopback" else lab.far, row):
        discarded = lab.count("Ip", "OutDiscards")
        cost, text = run_measured(lab.near, row.command)
        discarded = lab.count("Ip", "OutDiscards") - discarded
        again = run_measured(lab.near, MEASURE_MEMORY + row.command)[1] if case.setting.get("memory") else ""
    sent, answered = numbers_in(text, REPORTED[row.output])
    return {"rate": answered / cost.wall, "wall_ms": cost.wall * 1e3, "cpu_ns": cost.cpu * 1e9 / sent,
            "answered": answered, "missing": expected - answered, "discarded": discarded,
            "own_losses": expected - answered - discarded, "memory_kb": peak_memory_kb(again)}


# ---- start-up: many short runs, the median of them; what is started

def stripped_kb(program):
    stripped = bare("stripped")
    subprocess.run(["strip", "-o", stripped, shutil.which(program)], check=True)
    return os.path.getsize(stripped) / 1000


def start_to_exit(lab, case, row):
    costs = [run_measured(lab.near, row.command)[0] for _ in range(case.setting["runs"])]
    again = run_measured(lab.near, MEASURE_MEMORY + row.command)[1]
    if any(cost.status for cost in costs):
        raise NoFigures(again)
    return {"wall_ms": statistics.median(cost.wall for cost in costs) * 1e3,
            "cpu_ms": statistics.fmean(cost.cpu for cost in costs) * 1e3, "memory_kb": peak_memory_kb(again),
            "size_kb": stripped_kb(row.command.split()[0])}


# ---- commanded streams, and long tests

def commanded_stream(lab, case, row):
    with far_end(lab.far, row) as far:
        cost, text = run_measured(lab.near, MEASURE_MEMORY + row.command)
        report = far.end()
    batches, seconds, lost, bad = stream_figures(row, text)
    packets, whole = case.setting["packets"], batches - bad
    result = {"batches": batches / seconds, "lost": lost, "bad": bad, "cpu_usec": cost.cpu * 1e6 / batches,
              "goodput": (whole * packets - lost) * case.setting["payload"] * 8 / seconds / 1e6,
              "memory_kb": peak_memory_kb(text)}
    if "first_usec" in report:
        first, last = numbers_in(report, r"first_usec ([\d.]+) last_usec ([\d.]+)")
        result.update(first_usec=first, last_usec=last, growth=last / first)
    return result


def stream_figures(row, text):
    """(batches, seconds, lost packets, bad batches) as the asking side reports them."""
    if row.output == "bare":
        return numbers_in(text, r"batches (\d+) seconds ([\d.]+) lost (\d+) bad (\d+)")
    batches, lost, bad, seconds = numbers_in(
        text, r"(\d+):[^\n]*Lost: (\d+) +Bad Samples: (\d+)\s+Test complete! Total test time: +([\d.]+)s")
    return batches, seconds, lost, bad


def stream(lab, case, row):
    if row.output != "iperf3":
        return commanded_stream(lab, case, row)
    with far_end(lab.far, row):
        _, text = run_measured(lab.near, row.command)
    received = json.loads(text[text.index("{"):])["end"]["sum_received"]  # behind a warning
    return {"goodput": received["bits_per_second"] / 1e6, "lost": received["lost_packets"]}


# ---- instructions, which do not depend on the machine

CALLGRIND = "valgrind --tool=callgrind --callgrind-out-file=/dev/null "


def instructions(lab, case, row):
    """What each of the requests between a short run and a longer one costs the program in user space."""
    counts = []
    for requests in case.setting["requests"]:
        command = CALLGRIND + row.command.replace("REQUESTS", str(requests))
        with far_end(lab.near, row):
            counts += numbers_in(run_measured(lab.near, command)[1], r"Collected : (\d+)")
    fewer, more = case.setting["requests"]
    return {"instructions": (counts[1] - counts[0]) / (more - fewer)}
