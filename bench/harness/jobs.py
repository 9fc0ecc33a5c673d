"""How each kind of row is run once. A job takes the bench, the case and the row and returns its figures by name."""

import array
import contextlib
import pathlib
import re
import statistics
import tempfile
import time

from harness import programs
from harness.lab import Lab
from harness.measuring import FAR_CPU, SENDER_CPU, Helper, Measured, run_measured

TEST_PORT = 8004  # where the tested program sends
IPERF_PORT = 5201

SETTLE_SECONDS = 0.2


def numbers_in(text, pattern):
    """The numbers that `pattern` captures in a program's output; none when it does not match."""
    found = re.search(pattern, text)
    return [float(number) for number in found.groups()] if found else None


# ---- blast: a window of wall time in the middle of the run, counted at the far end

def blast(bench, case, row):
    lab = bench.lab
    with far_end_of_blast(lab, row):
        time.sleep(SETTLE_SECONDS)
        before = lab.counters()
        with Measured(lab, row.command, stop_after=row.stop_after) as sender:
            rate = arrivals_per_second(lab, row.lead_in, bench.pick(1.2, 0.5))
            costs, text = sender.finish()
        time.sleep(SETTLE_SECONDS)
        after = lab.counters()
    moved = {name: after[name] - before[name] for name in after}
    if not costs or moved["arrived"] == 0:
        bench.complain(case, row, text)
        return {}
    return {
        "rate": rate,
        "cpu_ns": costs[0].cpu * 1e9 / moved["arrived"],
        "lost": moved["sent"] - moved["arrived"],
        "queue_drops": moved["queue_drops"],
    }


def far_end_of_blast(lab, row):
    if row.far_end == "iperf3":
        return Helper(lab, ["iperf3", "--server", "--one-off"], port=IPERF_PORT)
    if row.far_end == "sink":
        return Helper(lab, [programs.bare("bare_receiver"), "sink", "udp", str(TEST_PORT)])
    return contextlib.nullcontext()


def arrivals_per_second(lab, lead_in, window):
    time.sleep(lead_in)
    start_time, start = time.monotonic(), lab.counters()["arrived"]
    time.sleep(window)
    return (lab.counters()["arrived"] - start) / (time.monotonic() - start_time)


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


# ---- pacing: kernel receive stamps at the far end

class PacedRun:
    """One paced sender in a lab of its own, so that several can run side by side and hear nothing of each other. All
    that it starts is ended by `stack`."""

    def __init__(self, stack, name, case, row, cpu):
        self.stack, self.case, self.row, self.cpu = stack, case, row, cpu
        self.lab = stack.enter_context(Lab(name))
        self.stamps = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory())) / "stamps"
        carrier, path = case.setting["carrier"], case.setting["path"]
        mode = "answer" if carrier == "udp" and path == "echo" else "stamps"
        receiver = [programs.bare("bare_receiver"), mode, carrier, str(TEST_PORT), str(self.stamps)]
        other_cpu = FAR_CPU if cpu == SENDER_CPU else SENDER_CPU
        self.receiver = stack.enter_context(Helper(self.lab, receiver, cpu=other_cpu))

    def start(self):
        self.sender = self.stack.enter_context(Measured(self.lab, self.row.command, cpu=self.cpu))

    def finish(self, bench):
        costs, text = self.sender.finish(give_up_after=self.case.setting["seconds"] * 2 + 10)
        time.sleep(SETTLE_SECONDS)
        self.receiver.end()
        stamps = array.array("q", self.stamps.read_bytes())
        if not costs or len(stamps) < self.case.setting["count"] / 2:
            bench.complain(self.case, self.row, text)
            return {}
        figures = pacing_figures(stamps, self.case.setting["period_usec"], self.row.first_burst)
        figures["missing"] = self.case.setting["count"] - len(stamps)
        figures["cpu_ns"] = costs[0].cpu * 1e9 / len(stamps)
        return figures


def pacing_figures(stamps, period_usec, first_burst):
    """What the stream looks like after its first release, which is a burst. The mean rate counts from the start of that
    release, when the clock of the stream starts, and counts the packets after it."""
    period = period_usec * 1000
    paced = stamps[first_burst:]
    gaps = [later - earlier for earlier, later in zip(paced, paced[1:])]
    mean = (stamps[-1] - stamps[0]) / len(paced)
    middle = statistics.median(gaps)
    return {
        "rate_error": abs(period / mean - 1) * 100,
        "gap_error_usec": statistics.median(abs(gap - period) for gap in gaps) / 1000,
        "gap_spread_usec": statistics.median(abs(gap - middle) for gap in gaps) / 1000,
    }


def paced_group(bench, group):
    """Runs the (case, row) pairs of `group` at the same time, spread over both processors."""
    with contextlib.ExitStack() as stack:
        runs = [PacedRun(stack, f"p{index}", case, row, (index + bench.round) % 2)
                for index, (case, row) in enumerate(group)]
        time.sleep(SETTLE_SECONDS)
        for run in runs:
            run.start()
        return [run.finish(bench) for run in runs]


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
