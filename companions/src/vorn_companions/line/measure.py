# SPDX-License-Identifier: MIT
"""The measurement of a line: its phases in their order, within a bound of time."""

import contextlib
import dataclasses
import math
from collections.abc import Callable, Iterator

from vorn_companions import program
from vorn_companions.line import runs, search
from vorn_companions.line.arrivals import (Arrivals, falls_behind, is_carried, is_filled, lost_share, rate_of,
                                           rough_rate_of)
from vorn_companions.line.delay import Probe, delay_of, is_rising
from vorn_companions.line.pace import FULL_LENGTH, Pace, pace_above, pace_below
from vorn_companions.line.preflight import look_before
from vorn_companions.line.result import Hop, Line, Lossless, Phase, Rate
from vorn_companions.line.under_way import NotMeasured, Session, Stopped
from vorn_companions.read.records import REPLY

OVERLOAD = 1.1  # of the rate found: the line is never idle
LOAD = 1.25  # in one second this fills a queue of 250 msec; more would drop the pings among the load
GROWTH = 2.0  # where a load filled nothing
RETREAT = 4.0  # where nearly nothing came
DOWN_SHARE = 0.15  # of the whole time: when it is over, the rate found so far has to do
BATCHES = 4  # with a load that fills the line and those before it
TRAINS = (50, 500, 5000)
TRAIN_SPAN_USEC = 20_000  # a train that takes less to arrive is followed by a longer one
FALLBACK_MBPS = 1.0  # where even the trains said nothing
LEAST_LOAD_SEC = 0.3
LAST_ANSWERS_SEC = 0.4
TRIAL_SEC = 1.0
SAME_RATE = 0.97  # of the other direction's: what comes back is held up there
LONGEST_TIMEOUT_USEC = 2_000_000


@dataclasses.dataclass(frozen=True, slots=True)
class Plan:
    """What to measure, and for how many seconds each."""

    down: bool
    up: bool
    loss_percent: float
    total_sec: float
    idle_sec: float
    batch_sec: float
    load_sec: float
    echo_sec: float
    judged_sec: float  # 0: no lossless rate
    train_timeout_usec: int


FULL = Plan(True, True, 0.0, total_sec=20.0, idle_sec=2.0, batch_sec=1.0, load_sec=3.0, echo_sec=2.0, judged_sec=3.0,
            train_timeout_usec=1_000_000)
QUICK = Plan(True, True, 0.0, total_sec=5.0, idle_sec=0.5, batch_sec=0.4, load_sec=0.9, echo_sec=0.6, judged_sec=0.0,
             train_timeout_usec=300_000)

PHASES = {"idle": "idle: pings and the path", "capacity": "down: capacity", "down": "down: latency under load",
          "lossless": "down: the highest rate without loss", "up rate": "up: rate", "up": "up: latency under load"}


def phases_of(plan: Plan) -> list[str]:
    down = ["capacity", "down", *(["lossless"] if plan.judged_sec else [])] if plan.down else []
    return ["idle", *down, *(["up rate", "up"] if plan.up else [])]


def up_sec(plan: Plan) -> float:
    """What the phases up take at most, the waits for lost answers among them."""
    return plan.echo_sec + plan.load_sec + 2.0 if plan.up else 0.0


# --- phases ---

def measure_idle(session: Session, plan: Plan, line: Line) -> None:
    probes, hops = runs.pings_and_path(session, plan.idle_sec)
    keep_probes(line, "idle", probes, probes)
    line.hops = [Hop(record.sequence + 1, record.host, record.rtt_usec) for record in hops
                 if record.rtt_usec is not None]
    line.address = next((record.host for record in hops if record.answer == REPLY), "")
    line.reached = bool(line.address)


def keep_probes(line: Line, name: str, probes: list[Probe], met: list[Probe]) -> None:
    line.probes[name], line.met[name] = probes, met
    line.delays[name] = delay_of(met)
    if line.delays[name].median_usec is None:
        line.reasons.append(f"{name}: {line.delays[name].lost * 100:.0f} % of {len(met)} pings were lost, too many to "
                            "tell the delay")


def rough_rate(train_of: Callable[[Pace, int], Arrivals]) -> float:
    """A first guess: packets that leave at once arrive at the pace of the line."""
    rough = None
    for size in TRAINS:
        train = train_of(Pace(1, FULL_LENGTH), size)
        rough = rough_rate_of(train) or rough
        if train.span_usec > TRAIN_SPAN_USEC or len(train.sequences) < size:
            break
    return rough or FALLBACK_MBPS


def capacity(stream_of: Callable[[Pace], Arrivals], rough: float, wanted: int,
             is_late: Callable[[], bool] = lambda: False) -> Rate:
    """The highest rate that arrived in any of `wanted` streams that filled the line (as the Maximum IP-Layer Capacity
    of RFC 9097 is the highest of a few intervals); at least that rate where none could be made to, or none in time."""
    best, asked, filled, too_much = 0.0, OVERLOAD * rough, 0, math.inf
    for _ in range(BATCHES + wanted):
        pace = pace_above(asked)
        arrivals = stream_of(pace)
        rate = rate_of(arrivals)
        best = max(best, rate or 0.0)
        filled += is_filled(arrivals)
        if filled == wanted or rate and (is_late() or pace.delay_usec == 1) or not rate and too_much < math.inf:
            break
        if rate is None:  # more than the hosts themselves can take: nearly nothing came
            too_much = asked
        asked = asked / RETREAT if rate is None else OVERLOAD * best if is_filled(arrivals) else GROWTH * asked
        if asked >= too_much:
            break
    if not best:
        came = f"{len(arrivals.sequences)} of {arrivals.size} packets came"
        raise NotMeasured(f"too much was lost to tell a rate: {came}")
    return Rate(best, "" if filled else "hosts")


def measure_capacity(session: Session, plan: Plan, line: Line) -> None:
    rough = rough_rate(lambda pace, size: runs.stream(session, pace, size))
    until_sec = session.age_sec + DOWN_SHARE * plan.total_sec
    lost_here = session.notes.total()
    found = capacity(lambda pace: runs.stream(session, pace, pace.packets_in(plan.batch_sec)), rough,
                     2 if plan.judged_sec else 1, lambda: session.age_sec > until_sec)
    line.down = Rate(found.mbps, "hosts" if session.notes.total() > lost_here else found.held_up_by)


def measure_down(session: Session, plan: Plan, line: Line) -> None:
    """One stream as long as the probes; where a batch cannot be so long, several."""
    if line.down is None:
        return
    pace = pace_above(LOAD * line.down.mbps)
    probes: list[Probe] = []
    met: list[Probe] = []
    left_sec = plan.load_sec
    while left_sec > LEAST_LOAD_SEC:
        size = pace.packets_in(left_sec)
        loaded = runs.loaded_stream(session, pace, size)
        probes, met = probes + loaded.probes, met + loaded.met
        left_sec -= size * pace.delay_usec / 1e6
    keep_probes(line, "down", probes, met)
    if is_rising(loaded.met):
        line.rising.add("down")


def measure_lossless(session: Session, plan: Plan, line: Line) -> None:
    """Looks for the rate with streams of a second, then judges it by a long one."""
    if line.down is None:
        return
    until_sec = plan.total_sec - up_sec(plan)
    trials: dict[Pace, Lossless] = {}
    while True:
        rate = search.next_rate(line.down.mbps, [(pace.rate, trial.mbps is not None) for pace, trial in trials.items()])
        left_sec = until_sec - session.age_sec
        best = max((pace for pace, trial in trials.items() if trial.mbps is not None), key=lambda pace: pace.rate,
                   default=None)
        if rate is not None and left_sec > 2 * TRIAL_SEC:
            pace, seconds = pace_below(rate), TRIAL_SEC
        elif best and trials[best].seconds < 2 * TRIAL_SEC and left_sec > TRIAL_SEC:
            pace, seconds = best, min(plan.judged_sec, left_sec)
        else:
            return
        trials[pace] = judge_pace(session, plan, pace, seconds)
        line.lossless = search.answer_of(trials.values())


def judge_pace(session: Session, plan: Plan, pace: Pace, seconds: float) -> Lossless:
    arrivals = runs.stream(session, pace, pace.packets_in(seconds))
    return Lossless(rate_of(arrivals) if is_carried(arrivals, plan.loss_percent) else None, lost_share(arrivals),
                    falls_behind(arrivals), pace.rate, arrivals.span_usec / 1e6)


def measure_up_rate(session: Session, plan: Plan, line: Line) -> None:
    slowest_usec = 0

    def train_of(pace: Pace, size: int) -> Arrivals:
        nonlocal slowest_usec
        train = runs.echoes(session, pace, size, plan.train_timeout_usec)
        slowest_usec = max([slowest_usec, *train.times_usec])
        return train

    rough = min(rough_rate(train_of), line.down.mbps if line.down else math.inf)  # no answer comes back faster
    timeout_usec = min(LONGEST_TIMEOUT_USEC, plan.train_timeout_usec // 2 + 2 * slowest_usec)
    until_sec = plan.total_sec - plan.load_sec - plan.echo_sec
    lost_here = session.notes.total()
    found = capacity(lambda pace: runs.echoes(session, pace, pace.packets_in(plan.echo_sec), timeout_usec), rough, 1,
                     lambda: session.age_sec > until_sec)
    if found.at_least or session.notes.total() > lost_here:
        line.up = Rate(found.mbps, "hosts")
    else:
        line.up = Rate(found.mbps, "way back" if is_held_up(session, plan, line, found.mbps) else "")


def is_held_up(session: Session, plan: Plan, line: Line, up_mbps: float) -> bool:
    """Whether the way back carries no more than what was found of both."""
    if line.down is not None:
        return up_mbps > SAME_RATE * line.down.mbps
    pace = pace_above(OVERLOAD * up_mbps)
    return is_filled(runs.stream(session, pace, pace.packets_in(plan.batch_sec)))


def measure_up(session: Session, plan: Plan, line: Line) -> None:
    if line.up is None:
        return
    left_sec = max(plan.load_sec / 2, plan.total_sec - session.age_sec - LAST_ANSWERS_SEC)
    loaded = runs.blast(session, pace_above(LOAD * line.up.mbps), min(plan.load_sec, left_sec))
    keep_probes(line, "up", loaded.probes, loaded.met)
    if is_rising(loaded.met):
        line.rising.add("up")


MEASURES = {"idle": measure_idle, "capacity": measure_capacity, "down": measure_down, "lossless": measure_lossless,
            "up rate": measure_up_rate, "up": measure_up}


# --- all of them ---

@contextlib.contextmanager
def phase(line: Line, name: str) -> Iterator[None]:
    started_usec = program.now_usec()
    try:
        yield
    except NotMeasured as reason:
        line.reasons.append(f"{PHASES[name]}: {reason}")
    finally:
        line.phases.append(Phase(name, started_usec, program.now_usec()))


def measure(session: Session, plan: Plan, line: Line, say: Callable[[str, list[str]], None]) -> None:
    """Fills `line`; `say` hears which phase begins and which are left. A signal ends it with what is known by then."""
    names = phases_of(plan)
    try:
        say("", names)
        look_before(session)
        for number, name in enumerate(names):
            say(name, names[number + 1:])
            with phase(line, name):
                MEASURES[name](session, plan, line)
    except NotMeasured as reason:
        line.reasons.append(str(reason))
    except Stopped:
        line.stopped = True
    line.host_losses = sorted(session.notes)
    line.seconds = session.age_sec
