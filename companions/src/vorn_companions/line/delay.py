# SPDX-License-Identifier: MIT
"""Round trips of one phase, what a load adds to them, and the grade of that."""

import dataclasses
import math
import statistics
from collections.abc import Sequence

LEAST_ANSWERS = 10  # fewer tell no median, let alone a 95th percentile
MOST_LOST = 0.5  # beyond, what came back says nothing about what did not

# What the load may add to the median, msec, from the best on. A conversation bears 150 msec one way (ITU-T G.114), and
# games and remote desktops a fifth of it.
GRADES = (("A", 5.0), ("B", 30.0), ("C", 100.0), ("D", 300.0))
WORST_GRADE = "E"


@dataclasses.dataclass(frozen=True, slots=True)
class Probe:
    """One echo request of a phase."""

    sent_usec: int  # since the epoch
    rtt_usec: int | None  # None: no answer


@dataclasses.dataclass(frozen=True, slots=True)
class Delay:
    """Round trips in usec; `lost` is the share of the requests without an answer. None: too few answers to say."""

    median_usec: float | None
    p95_usec: float | None
    lost: float
    requests: int


def delay_of(probes: Sequence[Probe]) -> Delay:
    trips = sorted(probe.rtt_usec for probe in probes if probe.rtt_usec is not None)
    lost = 1 - len(trips) / len(probes) if probes else 1.0
    if len(trips) < LEAST_ANSWERS or lost > MOST_LOST:
        return Delay(None, None, lost, len(probes))
    return Delay(statistics.median(trips), trips[math.ceil(len(trips) * 0.95) - 1], lost, len(probes))


def added_usec(idle: Delay | None, loaded: Delay | None) -> float | None:
    """What the load adds to the median round trip; not below 0, where only chance would put it."""
    if idle is None or loaded is None or idle.median_usec is None or loaded.median_usec is None:
        return None
    return max(0.0, loaded.median_usec - idle.median_usec)


def grade_of(added: float) -> str:
    return next((grade for grade, most_msec in GRADES if added < most_msec * 1000), WORST_GRADE)


def is_rising(probes: Sequence[Probe]) -> bool:
    """Whether the delay still grew when the load ended: the queue is deeper than the load has shown."""
    trips = [probe.rtt_usec for probe in probes if probe.rtt_usec is not None]
    third = len(trips) // 3
    if third < LEAST_ANSWERS:
        return False
    middle, last = statistics.median(trips[third:2 * third]), statistics.median(trips[-third:])
    return last > 1.15 * middle + 1000
