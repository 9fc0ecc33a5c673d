# SPDX-License-Identifier: MIT
"""One run of the program within a bound of time, and its figures."""

import dataclasses
import signal
import subprocess
import time
from collections.abc import Sequence

import numpy

from vorn_companions import program
from vorn_companions.figures.numbers import guaranteed, loss_percent, percentiles
from vorn_companions.read import lines
from vorn_companions.read.records import REPLY, Batch, Message, MonitorLocked, Request, Totals
from vorn_companions.signals import Stop

POLL_SEC = 0.1
GRACE_SEC = 5.0  # for the summary, once the program was asked to end
SILENT_BATCHES = 3  # after so many without a packet the monitor is taken for dead
ENGAGED = "Engaging options: "
REFUSED = "Error- could not connect to"
UNSENT = "Err- could not send"


@dataclasses.dataclass
class Outcome:
    """What a run printed and how it ended."""

    requests: list[Request] = dataclasses.field(default_factory=list)
    batches: list[Batch] = dataclasses.field(default_factory=list)
    totals: Totals | None = None
    troubles: list[str] = dataclasses.field(default_factory=list)  # errors and warnings
    strange: list[str] = dataclasses.field(default_factory=list)  # lines not understood
    engaged: list[str] = dataclasses.field(default_factory=list)  # the options that a preset stands for
    monitor: bool = False
    cut: bool = False  # the bound ended it
    silent: bool = False  # no packet came in the first batches, and so it was ended
    status: int | None = None  # as subprocess gives it; None: it did not end


@dataclasses.dataclass
class Figures:
    """None: cannot be told."""

    sent: int | None = None  # requests, or packets of batches
    answered: int | None = None  # replies, or packets that arrived
    loss: float | None = None  # percent
    rtt_median: float | None = None  # ms, of the replies
    rtt_p95: float | None = None
    rtt_p99: float | None = None
    rtt_max: float | None = None
    jitter: float | None = None  # ms: mean difference of a round trip from the one before
    rate_median: float | None = None  # Mbit/s that this share of the good batches reached or beat
    rate_p99: float | None = None
    batches: int | None = None
    bad: int | None = None


# --- the run ---

def take(outcome: Outcome, text: str) -> None:
    record = lines.record_of(text.rstrip())
    if isinstance(record, Request):
        outcome.requests.append(record)
    elif isinstance(record, Batch):
        outcome.batches.append(record)
    elif isinstance(record, Totals):
        outcome.totals = record
    elif isinstance(record, MonitorLocked):
        outcome.monitor = True
    elif record is None:
        outcome.strange.append(text.strip())
    elif isinstance(record, Message) and record.trouble:
        outcome.troubles.append(text.strip())
    elif isinstance(record, Message) and record.text.startswith(ENGAGED):
        outcome.engaged = record.text.removeprefix(ENGAGED).split()


def is_silent(outcome: Outcome) -> bool:
    return len(outcome.batches) >= SILENT_BATCHES and not any(batch.received for batch in outcome.batches)


def run_bounded(command: Sequence[str], bound_sec: float, stop: Stop) -> Outcome:
    """The Outcome of `command`; after `bound_sec` seconds it is asked to end, and soon after that made to. A signal
    ends it at once."""
    outcome = Outcome()
    try:
        process = program.start(command)
    except OSError as error:
        return Outcome(status=126, troubles=[f"{command[0]}: {error.strerror}"])
    try:
        follow(process, outcome, bound_sec, stop)
    finally:
        program.end(process)
    return outcome


def follow(process: subprocess.Popen[bytes], outcome: Outcome, bound_sec: float, stop: Stop) -> None:
    ends = time.monotonic() + bound_sec
    for arrived in program.arrivals(process, stop, POLL_SEC):
        for _, text in arrived:
            if text is not None:
                take(outcome, text)
        asked = outcome.cut or outcome.silent
        if stop.signal or asked and time.monotonic() >= ends:
            return
        if not asked:
            outcome.cut, outcome.silent = time.monotonic() >= ends, is_silent(outcome)
            if outcome.cut or outcome.silent:
                ends = time.monotonic() + GRACE_SEC
                if process.poll() is None:
                    process.send_signal(signal.SIGINT)
    outcome.status = process.wait(max(0.0, ends - time.monotonic()) + GRACE_SEC)


# --- figures ---

def echo_figures(outcome: Outcome) -> Figures:
    """Answered is what had an echo reply in time: an ICMP error is no answer."""
    replies = [request for request in outcome.requests if request.answer == REPLY]
    times = [request.rtt for request in replies if request.rtt is not None]
    sent = max(len(outcome.requests), outcome.totals.sent if outcome.totals else 0)
    median, p95, p99, longest = percentiles(times, (50, 95, 99, 100))
    jitter = float(numpy.abs(numpy.diff(times)).mean()) if len(times) > 1 else None
    return Figures(sent=sent, answered=len(replies), loss=loss_of(sent, len(replies)), rtt_median=median, rtt_p95=p95,
                   rtt_p99=p99, rtt_max=longest, jitter=jitter)


def stream_figures(outcome: Outcome) -> Figures:
    """A batch holds no more than was sent: copies of a packet do not make up for the loss of another."""
    batches = outcome.batches
    sent = sum(batch.size for batch in batches)
    answered = sum(min(batch.received, batch.size) for batch in batches)
    rate_median, rate_p99 = guaranteed(
        [batch.rate for batch in batches if not batch.bad and batch.rate is not None], (50, 99))
    return Figures(sent=sent, answered=answered, loss=loss_of(sent, answered), batches=len(batches),
                   bad=sum(batch.bad for batch in batches), rate_median=rate_median, rate_p99=rate_p99)


def loss_of(sent: int, answered: int) -> float | None:
    return loss_percent(sent, max(0, sent - answered)) if sent else None


def figures_of(outcome: Outcome, arguments: Sequence[str]) -> Figures:
    if program.is_stream(arguments):
        return stream_figures(outcome)
    hidden = program.hides_answers([*arguments, *outcome.engaged])
    if hidden and outcome.totals and outcome.totals.received > 0:
        return Figures()
    return echo_figures(outcome)


# --- verdicts ---

def failure(outcome: Outcome, figures: Figures) -> str | None:
    """What is critical whatever the limits; None when nothing is."""
    refused = next((text for text in outcome.troubles if text.startswith(REFUSED)), None)
    if refused:
        return f"no answer: {refused.removeprefix('Error- ')}"
    if (figures.sent or figures.batches) and not figures.answered:
        unsent = next((text for text in outcome.troubles if text.startswith(UNSENT)), None)
        if unsent:
            return f"nothing could be sent: {unsent.removeprefix('Err- ')}"
        return f"no answer in {len(outcome.batches)} batches" if outcome.silent else "no answer"
    return "no good batch" if figures.batches and figures.rate_p99 is None and figures.bad == figures.batches else None


def doubts(outcome: Outcome, figures: Figures, bound_sec: float) -> list[str]:
    """Why the figures may not be all, or there are none."""
    said = f": {outcome.troubles[0]}" if outcome.troubles else ""
    found = []
    if outcome.monitor:
        found.append("a monitor: its times are gaps between packets")
    if outcome.cut:
        found.append(f"not over within {bound_sec:g} s")
    elif outcome.status is None:
        found.append("vorn does not end")
    elif outcome.status != 0 and not outcome.silent:
        how = f"status {outcome.status}" if outcome.status > 0 else f"signal {-outcome.status}"
        found.append(f"vorn ended with {how}{said}")
    if outcome.strange:
        found.append(f"not understood: {outcome.strange[0]}")
    if outcome.totals and figures.sent is None and figures.batches is None:
        found.append("-s leaves out the answers, and the totals count errors among them")
    elif not outcome.cut and outcome.status == 0 and not figures.sent and not figures.batches:
        found.append(f"no request and no batch{said}")
    return found
