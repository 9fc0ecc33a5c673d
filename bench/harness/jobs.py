"""How each kind of row is run once. A job takes the bench, the case and the row and returns its figures by name."""

import contextlib
import json
import pathlib
import re
import signal
import statistics
import subprocess
import time

from harness.lab import DEVICE
from harness.measuring import (MEASURE_MEMORY, TEST_PORT, Helper, Running, bare, far_end,
                               peak_memory_kb, run_measured)

SETTLE_SECONDS = 0.2


def numbers_in(text, pattern):
    """The numbers that `pattern` captures in a program's output; none when it does not match."""
    found = re.search(pattern, text)
    return [float(number) for number in found.groups()] if found else None


# ---- blast: a window of wall time in the middle of the run, counted at the far end

REPORTED_SENT = {"vorn": r"(\d+) tx pkts", "bare": r"sent (\d+)", "hping3": r"(\d+) packets transmitted"}
LEAD_IN_SECONDS, WINDOW_SECONDS = 0.4, 1.2


def blast(bench, case, row):
    lab, frames = bench.lab, case.setting.get("frames_per_packet", 1)
    offload = lab.without_checksum_offload() if case.setting.get("offload") == "off" else contextlib.nullcontext()
    with offload, far_end(lab.far, row):
        time.sleep(SETTLE_SECONDS)
        before, dropped_before = lab.arrived(), lab.queue_drops()
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
    if not cost or not arrived:
        bench.complain(case, row, text)
        return {}
    sent = numbers_in(text, REPORTED_SENT[row.output]) if row.output else None
    return {"rate": rate, "cpu_ns": cost.cpu * 1e9 / arrived, "queue_drops": lab.queue_drops() - dropped_before,
            **({"lost": sent[0] - arrived} if sent else {})}


# ---- far: every packet of a blast, looked at where it arrives

CHECKED = ("checked", "unchecked", "missing", "repeated", "damaged")


def far_end_check(bench, case, row):
    lab = bench.lab
    checker = [bare("check_frames"), DEVICE, str(TEST_PORT), str(case.setting["count"])]
    with lab.without_checksum_offload(), Helper(lab.far, checker) as far:
        before = lab.arrived()
        cost, text = run_measured(lab.near, row.command)
        time.sleep(SETTLE_SECONDS)
        counted = lab.arrived() - before
        report = far.end()
    sent = numbers_in(text, REPORTED_SENT["vorn"])
    checked = numbers_in(report, " ".join(rf"{name} (\d+)" for name in CHECKED))
    if not cost or not sent or not checked:
        bench.complain(case, row, text + report)
        return {}
    return {"printed": sent[0], "counted": counted, "uncounted": abs(sent[0] - counted), **dict(zip(CHECKED, checked))}


# ---- echo and sweep: from start to exit

REPORTED = {
    "vorn": r"(\d+) tx pkts, (\d+) rx pkts",
    "ping": r"(\d+) packets transmitted, (\d+) received",
    "fping": r"(\d+) targets\s+(\d+) alive",
    "bare": r"sent (\d+) answered (\d+)",
}


def answered_requests(bench, case, row):
    lab, expected = bench.lab, case.setting["expected"]
    with far_end(lab.near if case.setting["answers"] == "loopback" else lab.far, row):
        discarded = lab.answers_discarded()
        cost, text = run_measured(lab.near, row.command)
        discarded = lab.answers_discarded() - discarded
        again = run_measured(lab.near, [*MEASURE_MEMORY, *row.command])[1] if case.setting.get("memory") else ""
    counts = numbers_in(text, REPORTED[row.output])
    if not cost or not counts:
        bench.complain(case, row, text)
        return {}
    sent, answered = counts
    return {"rate": answered / cost.wall, "wall_ms": cost.wall * 1e3, "cpu_ns": cost.cpu * 1e9 / sent,
            "answered": answered, "missing": expected - answered, "discarded": discarded,
            "own_losses": expected - answered - discarded, "memory_kb": peak_memory_kb(again)}


# ---- start-up: many short runs, the median of them

def start_to_exit(bench, case, row):
    runs = [run_measured(bench.lab.near, row.command) for _ in range(bench.pick(200, 40))]
    costs = [cost for cost, _ in runs]
    again = run_measured(bench.lab.near, [*MEASURE_MEMORY, *row.command])[1]
    if any(not cost or cost.status for cost in costs):
        bench.complain(case, row, runs[-1][1])
        return {}
    return {"wall_ms": statistics.median(cost.wall for cost in costs) * 1e3,
            "cpu_ms": statistics.fmean(cost.cpu for cost in costs) * 1e3, "memory_kb": peak_memory_kb(again)}


def size_on_disk(_bench, _case, row):
    stripped = pathlib.Path(bare("stripped"))
    subprocess.run(["strip", "-o", stripped, row.command[0]], check=True)
    shown = subprocess.run(["readelf", "-d", row.command[0]], check=True, capture_output=True, text=True).stdout
    libraries = re.findall(r"\(NEEDED\).*\[(?!libc\.so)(.*)\]", shown)
    return {"size_kb": stripped.stat().st_size / 1000, "beyond_libc": len(libraries)}


# ---- commanded streams, and long tests

def commanded_stream(bench, case, row):
    with far_end(bench.lab.far, row) as far:
        cost, text = run_measured(bench.lab.near, [*MEASURE_MEMORY, *row.command])
        report = far.end()
    figures = stream_figures(row, text)
    if not cost or cost.status != 0 or not figures:
        bench.complain(case, row, text)
        return {}
    batches, seconds, lost, bad = figures
    packets, whole = case.setting["packets"], batches - bad
    result = {"batches": batches / seconds, "lost": lost, "bad": bad, "cpu_usec": cost.cpu * 1e6 / batches,
              "goodput": (whole * packets - lost) * case.setting["payload"] * 8 / seconds / 1e6,
              "memory_kb": peak_memory_kb(text)}
    ends = numbers_in(report, r"first_usec ([\d.]+) last_usec ([\d.]+)")
    if ends:
        result.update(first_usec=ends[0], last_usec=ends[1], growth=ends[1] / ends[0])
    return result


def stream_figures(row, text):
    """(batches, seconds, lost packets, bad batches) as the asking side reports them."""
    if row.output == "bare":
        numbers = numbers_in(text, r"batches (\d+) bad (\d+) lost (\d+) seconds ([\d.]+)")
        return numbers and (numbers[0], numbers[3], numbers[2], numbers[1])
    seconds = numbers_in(text, r"Total test time:\s+([\d.]+)s")
    lines = re.findall(r"^\s*(\d+):.*Lost: (\d+)\s+Bad Samples: (\d+)", text, re.MULTILINE)
    return (float(lines[-1][0]), seconds[0], float(lines[-1][1]), float(lines[-1][2])) if seconds and lines else None


def stream_or_iperf(bench, case, row):
    if row.output != "iperf3":
        return commanded_stream(bench, case, row)
    with far_end(bench.lab.far, row):
        cost, text = run_measured(bench.lab.near, row.command)
    try:
        received = json.loads(text[text.index("{"):])["end"]["sum_received"]
        return {"goodput": received["bits_per_second"] / 1e6, "lost": received["lost_packets"]}
    except (ValueError, KeyError):
        bench.complain(case, row, text)
        return {}


# ---- instructions, which do not depend on the machine

CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]


def instructions(bench, case, row):
    """What each of the requests between a short run and a longer one costs the program in user space."""
    counts = []
    for requests in case.setting["requests"]:
        command = [word.replace("REQUESTS", str(requests)) for word in row.command]
        with far_end(bench.lab.near, row):
            cost, text = run_measured(bench.lab.near, [*CALLGRIND, *command])
        collected = numbers_in(text, r"Collected : (\d+)")
        if not cost or not collected:
            bench.complain(case, row, text)
            return {}
        counts += collected
    fewer, more = case.setting["requests"]
    return {"instructions": (counts[1] - counts[0]) / (more - fewer)}
