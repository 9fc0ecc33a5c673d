# SPDX-License-Identifier: MIT
"""The packets of one stream as they arrived, and what they say about the line."""

import array
import dataclasses
from collections.abc import Sequence

from vorn_companions.line.pace import HEADER_BYTES, Pace

LEAST_PACKETS = 8  # fewer tell no rate
SETTLED_SHARE = 0.25  # the first quarter still shows the burst and the filling of queues
LAG_TOLERANCE_USEC = 1000  # what a busy host adds; a thousandth of the stream in a long one


@dataclasses.dataclass(slots=True)
class Arrivals:
    """In the order of arrival; both lists have the same length."""

    pace: Pace
    size: int  # packets sent
    sequences: "array.array[int]" = dataclasses.field(default_factory=lambda: array.array("l"))
    times_usec: "array.array[int]" = dataclasses.field(default_factory=lambda: array.array("q"))  # from any origin

    def add(self, sequence: int, time_usec: int) -> None:
        self.sequences.append(sequence)
        self.times_usec.append(time_usec)

    @property
    def span_usec(self) -> int:
        return self.times_usec[-1] - self.times_usec[0] if len(self.times_usec) else 0


def rate_of(arrivals: Arrivals) -> float | None:
    """Mbit/s of payload that arrived, behind the first quarter of the packets; None: too few came to say.

    Where more is sent than the line carries, this is the rate of the line: the burst at the start, and what a token
    bucket lets through at once, are over by then.
    """
    first, last = int(len(arrivals.times_usec) * SETTLED_SHARE), len(arrivals.times_usec) - 1
    span_usec = arrivals.times_usec[last] - arrivals.times_usec[first] if last - first >= LEAST_PACKETS else 0
    return (last - first) * (arrivals.pace.length - HEADER_BYTES) * 8 / span_usec if span_usec > 0 else None


def rough_rate_of(train: Arrivals) -> float | None:
    """A guess from a train of packets that left all at once: most of it may have overflowed a queue."""
    came, span_usec = len(train.times_usec), train.span_usec
    return (came - 1) * (train.pace.length - HEADER_BYTES) * 8 / span_usec if came > 2 and span_usec > 0 else None


def lost_share(arrivals: Arrivals) -> float:
    """Of the packets behind the first burst, which may overflow a queue that the stream itself never would."""
    burst = min(arrivals.pace.burst, arrivals.size // 2)
    came = len({sequence for sequence in arrivals.sequences if sequence >= burst})
    return 1 - came / (arrivals.size - burst)


def lag_growth_usec(arrivals: Arrivals) -> int:
    """How much later than due the last tenth of the packets is than the first tenth behind the burst.

    A stream that is faster than the line falls behind its schedule while the queue in front of the line hides the
    excess; one that the line carries does not. A busy host makes packets late, never early: of each tenth the punctual
    ones tell.
    """
    pace = arrivals.pace
    lags = [time - pace.due_usec(sequence) for sequence, time in zip(arrivals.sequences, arrivals.times_usec)
            if sequence >= pace.burst]
    tenth = len(lags) // 10
    return punctual(lags[-tenth:]) - punctual(lags[:tenth]) if tenth else 0


def punctual(lags: Sequence[int]) -> int:
    """The lag that a tenth of them does not exceed."""
    return sorted(lags)[len(lags) // 10]


def falls_behind(arrivals: Arrivals) -> bool:
    return lag_growth_usec(arrivals) > max(LAG_TOLERANCE_USEC, arrivals.span_usec / 1000)


def is_carried(arrivals: Arrivals, most_lost_percent: float) -> bool:
    """Whether the line carries the stream: no more is lost than allowed, and it arrives as fast as it is sent."""
    return lost_share(arrivals) * 100 <= most_lost_percent and not falls_behind(arrivals)


def is_filled(arrivals: Arrivals) -> bool:
    """Whether more was sent than the line carries: much less arrived in a second than was sent in one."""
    rate = rate_of(arrivals)
    return rate is not None and rate < 0.97 * arrivals.pace.rate
