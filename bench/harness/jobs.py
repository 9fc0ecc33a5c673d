"""How each kind of row is run once. A job takes the bench, the case and the row and returns its figures by name."""

import contextlib
import re
import statistics
import subprocess
import time

from harness import programs
from harness.lab import LINK
from harness.measuring import Helper, Measured, run_measured

TEST_PORT = 8004  # where the tested program sends
IPERF_PORT = 5201

SETTLE_SECONDS = 0.2


def numbers_in(text, pattern):
    """The numbers that `pattern` captures in a program's output; none when it does not match."""
    found = re.search(pattern, text)
    return [float(number) for number in found.groups()] if found else None


# ---- blast: a window of wall time in the middle of the run, counted at the far end

REPORTED_SENT = {"vorn": r"(\d+) tx pkts", "bare": r"sent (\d+)", "hping3": r"(\d+) packets transmitted"}


def blast(bench, case, row):
    lab, per_packet = bench.lab, case.setting.get("frames_per_packet", 1)
    with checksum_offload(lab, case.setting.get("offload", "on")), far_end_of_blast(lab, row):
        time.sleep(SETTLE_SECONDS)
        before, dropped_before = arrived_packets(lab), lab.counters()["queue_drops"]
        with Measured(lab, row.command, stop_after=row.stop_after) as sender:
            rate = arrivals_per_second(lab, row.lead_in, bench.pick(1.2, 0.5)) / per_packet
            costs, text = sender.finish()
        time.sleep(SETTLE_SECONDS)
        arrived = (arrived_packets(lab) - before) / per_packet
        dropped = lab.counters()["queue_drops"] - dropped_before
    if not costs or arrived == 0:
        bench.complain(case, row, text)
        return {}
    figures = {"rate": rate, "cpu_ns": costs[0].cpu * 1e9 / arrived, "queue_drops": dropped}
    sent = row.output and numbers_in(text, REPORTED_SENT[row.output])
    if sent:
        figures["lost"] = sent[0] - arrived
    return figures


def arrived_packets(lab):
    """What the far end's IP layer has received. Packets that crossed the device as one frame, to be split by it, count
    one each here, as they do nowhere else. Marked ones (ECN) would not: nobody sends any."""
    names, values = [line.split() for line in lab.far.read("netstat").splitlines() if line.startswith("IpExt:")]
    return int(values[names.index("InNoECTPkts")])


@contextlib.contextmanager
def checksum_offload(lab, state):
    """With "off", the near device wants whole packets with finished checksums for the length of a `with`."""
    if state == "on":
        yield
        return
    switch = ["ethtool", "-K", LINK, "tx"]
    subprocess.run(lab.command(lab.near, [*switch, "off"]), check=True, stdout=subprocess.DEVNULL)
    try:
        yield
    finally:
        subprocess.run(lab.command(lab.near, [*switch, "on"]), check=True, stdout=subprocess.DEVNULL)


def far_end_of_blast(lab, row):
    if row.far_end == "iperf3":
        return Helper(lab, ["iperf3", "--server", "--one-off"], port=IPERF_PORT)
    if row.far_end == "sink":
        return Helper(lab, [programs.bare("bare_receiver"), str(TEST_PORT)])
    return contextlib.nullcontext()


def arrivals_per_second(lab, lead_in, window):
    time.sleep(lead_in)
    start_time, start = time.monotonic(), arrived_packets(lab)
    time.sleep(window)
    return (arrived_packets(lab) - start) / (time.monotonic() - start_time)


# ---- far: every packet of a blast, looked at where it arrives

CHECKED = ("checked", "unchecked", "missing", "repeated", "damaged")


def far_end_check(bench, case, row):
    lab, count = bench.lab, case.setting["count"]
    checker = [programs.bare("check_frames"), LINK, str(TEST_PORT), str(count)]
    with checksum_offload(lab, case.setting["offload"]), Helper(lab, checker) as far:
        before = arrived_packets(lab)
        cost, text = run_measured(lab, row.command, give_up_after=120)
        time.sleep(SETTLE_SECONDS)
        counted = arrived_packets(lab) - before
        report = far.end()
    sent = numbers_in(text, REPORTED_SENT["vorn"])
    checked = numbers_in(report, " ".join(rf"{name} (\d+)" for name in CHECKED))
    if cost is None or not sent or not checked:
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
    discarded = bench.lab.counters()["answers_discarded"]
    cost, text = run_measured(bench.lab, row.command, give_up_after=120)
    discarded = bench.lab.counters()["answers_discarded"] - discarded
    counts = numbers_in(text, REPORTED[row.output])
    if cost is None or counts is None:
        bench.complain(case, row, text)
        return {}
    sent, answered = counts
    return {
        "rate": answered / cost.wall,
        "wall_ms": cost.wall * 1e3,
        "cpu_ns": cost.cpu * 1e9 / sent,
        "answered": answered,
        "missing": case.setting["expected"] - answered,
        "discarded": discarded,
        "own_losses": case.setting["expected"] - answered - discarded,
        "memory_kb": cost.memory_kb,
    }


# ---- start-up: many short runs, the median of them

def start_to_exit(bench, case, row):
    with Measured(bench.lab, row.command, runs=bench.pick(200, 40)) as starts:
        costs, text = starts.finish(give_up_after=120)
    if not costs or any(cost.status != 0 for cost in costs):
        bench.complain(case, row, text)
        return {}
    return {
        "wall_ms": statistics.median(cost.wall for cost in costs) * 1e3,
        "cpu_ms": statistics.fmean(cost.cpu for cost in costs) * 1e3,
        "memory_kb": max(cost.memory_kb for cost in costs),
    }


def size_on_disk(_bench, _case, row):
    libraries = programs.libraries_needed(row.command[0])
    beyond_libc = [name for name in libraries if not name.startswith("libc.so")]
    return {"size_kb": programs.stripped_size(row.command[0]) / 1000, "beyond_libc": len(beyond_libc)}


# ---- partner streams

def far_partner(lab, row):
    if row.far_end == "vorn":
        return Helper(lab, [row.far_program, "--server"], port=TEST_PORT)
    return Helper(lab, [programs.bare("bare_monitor"), str(TEST_PORT), "1000"])


def partner_stream(bench, case, row):
    with far_partner(bench.lab, row) as far:
        cost, text = run_measured(bench.lab, row.command, give_up_after=case.setting.get("give_up", 120))
        report = far.end()
    figures = batch_figures(row, text)
    if cost is None or cost.status != 0 or figures is None:
        bench.complain(case, row, text)
        return {}
    batches, seconds, lost, bad = figures
    result = {"batches": batches / seconds, "lost": lost, "bad": bad, "cpu_usec": cost.cpu * 1e6 / batches,
              "memory_kb": cost.memory_kb}
    ends = numbers_in(report, r"first_usec (\d+) last_usec (\d+)")
    if ends:
        result.update(first_usec=ends[0] / 1000, last_usec=ends[1] / 1000, growth=ends[1] / ends[0])
    return result


def batch_figures(row, text):
    """(batches, seconds, lost packets, bad batches) as the asking side reports them."""
    if row.output == "bare":
        numbers = numbers_in(text, r"batches (\d+) bad (\d+) lost (\d+) seconds ([\d.]+)")
        return numbers and (numbers[0], numbers[3], numbers[2], numbers[1])
    seconds = numbers_in(text, r"Total test time:\s+([\d.]+)s")
    lines = re.findall(r"^\s*(\d+):.*Lost: (\d+)\s+Bad Samples: (\d+)", text, re.MULTILINE)
    if not seconds or not lines:
        return None
    batches, lost, bad = (float(number) for number in lines[-1])
    return batches, seconds[0], lost, bad
