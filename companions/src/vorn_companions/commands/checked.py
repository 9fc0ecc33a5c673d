# SPDX-License-Identifier: MIT
"""One run of the program within a bound of time, and its figures."""

import dataclasses
import math
import os
import signal
import time

from vorn_companions import program as run
from vorn_companions.read import lines
from vorn_companions.read.records import REPLY, Batch, Message, MonitorLocked, Request, Totals

POLL_SEC = 0.1
GRACE_SEC = 5.0  # for the summary, once the program was asked to end
ENGAGED = "Engaging options: "


@dataclasses.dataclass
class Outcome:
    """What a run printed and how it ended."""

    requests: list = dataclasses.field(default_factory=list)
    batches: list = dataclasses.field(default_factory=list)
    totals: Totals | None = None
    troubles: list = dataclasses.field(default_factory=list)  # errors and warnings
    strange: list = dataclasses.field(default_factory=list)  # lines not understood
    engaged: list = dataclasses.field(default_factory=list)  # the options that a preset stands for
    monitor: bool = False
    cut: bool = False  # the bound ended it
    status: int | None = None  # as subprocess gives it; None: it did not end


@dataclasses.dataclass
class Figures:
    """None: cannot be told."""

    sent: int | None = None  # requests, or packets of batches
    answered: int | None = None  # replies, or packets that arrived
    loss: float | None = None  # percent
    rtt_median: float | None = None  # ms, of the replies
    rtt_p95: float | None = None
    rate_median: float | None = None  # Mbit/s that this share of the good batches reached or beat
    rate_p99: float | None = None
    batches: int | None = None
    bad: int | None = None


def take(outcome, text):
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


def run_bounded(command, bound_sec, stopped):
    """The Outcome of `command`; after `bound_sec` seconds it is asked to end, and soon after that made to.

    When the list `stopped` is no longer empty the run is ended at once.
    """
    outcome = Outcome()
    try:
        process = run.start(command)
    except OSError as error:
        return Outcome(status=126, troubles=[f"{command[0]}: {error.strerror}"])
    ends = time.monotonic() + bound_sec
    try:
        for arrived in run.arrivals(process.stdout, POLL_SEC):
            for _, text in arrived:
                if text is not None:
                    take(outcome, text)
            if stopped or outcome.cut and time.monotonic() >= ends:
                break
            if time.monotonic() >= ends:
                outcome.cut = True
                ends += GRACE_SEC
                run.forward(process, signal.SIGINT)
        else:
            outcome.status = process.wait(max(0.0, ends - time.monotonic()) + GRACE_SEC)
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
    return outcome


def percentile(ordered, percent):
    """The smallest value that `percent` of the values do not exceed; None without a value."""
    return ordered[max(0, math.ceil(len(ordered) * percent / 100 - 1e-9) - 1)] if ordered else None


def guaranteed(rates, share):
    """The rate that `share` percent of the rates reached or beat; None without a rate."""
    reached = percentile(sorted(-rate for rate in rates), share)
    return None if reached is None else -reached


def loss_percent(sent, answered):
    return 100 * max(0, sent - answered) / sent if sent else None


def echo_figures(outcome):
    """Answered is what had an echo reply in time: an ICMP error is no answer."""
    totals = outcome.totals
    replies = [request.rtt for request in outcome.requests if request.answer == REPLY and request.rtt_usec is not None]
    sent = max(len(outcome.requests), totals.sent if totals else 0)
    answered = sum(request.answer == REPLY for request in outcome.requests)
    return Figures(sent=sent, answered=answered, loss=loss_percent(sent, answered),
                   rtt_median=percentile(sorted(replies), 50), rtt_p95=percentile(sorted(replies), 95))


def stream_figures(outcome):
    batches = outcome.batches
    rates = [batch.rate for batch in batches if not batch.bad and batch.rate is not None]
    sent = sum(batch.size for batch in batches)
    answered = sum(min(batch.received, batch.size) for batch in batches)
    return Figures(sent=sent, answered=answered, loss=loss_percent(sent, answered), batches=len(batches),
                   bad=sum(batch.bad for batch in batches), rate_median=guaranteed(rates, 50),
                   rate_p99=guaranteed(rates, 99))


# --- what the arguments make of a run ---

def is_stream(arguments):
    """Whether these arguments of the program make it command a stream."""
    return any(word.startswith("-c") or len(word) > 2 and "--client".startswith(word) for word in arguments)


def is_monitor(arguments):
    return any(word.startswith("-M") or len(word) > 3 and "--server".startswith(word) for word in arguments)


def hides_answers(outcome, arguments):
    """Whether answers have no line (-s). The totals that are left count ICMP errors among the answers."""
    return any(word.startswith("-s") for word in [*arguments, *outcome.engaged])


# --- verdicts ---

def figures_of(outcome, arguments):
    if is_stream(arguments):
        return stream_figures(outcome)
    if hides_answers(outcome, arguments) and outcome.totals and outcome.totals.received > 0:
        return Figures()
    return echo_figures(outcome)


def failure(outcome, figures):
    """What is critical whatever the limits; None when nothing is."""
    refused = next((text for text in outcome.troubles if text.startswith("Error- could not connect to")), None)
    if refused:
        return f"no answer: {refused.removeprefix('Error- ')}"
    if (figures.sent or figures.batches) and not figures.answered:
        return "no answer"
    return "no good batch" if figures.batches and figures.rate_p99 is None and figures.bad == figures.batches else None


def doubts(outcome, figures, arguments, bound_sec):
    """Why the figures may not be all, or there are none: a list of texts."""
    said = f": {outcome.troubles[0]}" if outcome.troubles else ""
    found = []
    if outcome.monitor:
        found.append("a monitor: its times are gaps between packets")
    if outcome.cut:
        found.append(f"not over within {bound_sec:g} s")
    elif outcome.status is None:
        found.append("vorn does not end")
    elif outcome.status != 0:
        how = f"status {outcome.status}" if outcome.status > 0 else f"signal {-outcome.status}"
        found.append(f"vorn ended with {how}{said}")
    if outcome.strange:
        found.append(f"not understood: {outcome.strange[0]}")
    if outcome.totals and figures.sent is None and figures.batches is None:
        found.append("-s leaves out the answers, and the totals count errors among them")
    elif not outcome.cut and outcome.status == 0 and not figures.sent and not figures.batches:
        found.append(f"no request and no batch{said}")
    return found
