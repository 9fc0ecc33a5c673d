# SPDX-License-Identifier: MIT
"""Times as they are shown: moments on the local clock, durations and round trips in the unit that suits them."""

import dataclasses
import datetime
from collections.abc import Iterable

from vorn_companions.figures.sheet import cell

SPOTS = 25  # of a span of time where its zone is looked at


@dataclasses.dataclass(frozen=True)
class Unit:
    """A unit of round trips, which are computed in ms."""

    name: str
    factor: float
    decimals: int

    def of(self, milliseconds: float | None) -> float | None:
        return None if milliseconds is None else milliseconds * self.factor

    def cell(self, milliseconds: float | None) -> str:
        return cell(self.of(milliseconds), self.decimals)


MILLISECONDS = Unit("ms", 1, 3)
MICROSECONDS = Unit("usec", 1000, 0)


def unit_of(milliseconds: Iterable[float | None]) -> Unit:
    """The unit in which all of these can be read: microseconds when they are below 1 ms."""
    return MICROSECONDS if 0 < max((value for value in milliseconds if value is not None), default=0) < 1 \
        else MILLISECONDS


def duration(usec: float) -> str:
    seconds = usec / 1e6
    for limit, unit, name in ((2, 0.001, "ms"), (120, 1, "s"), (7200, 60, "min"), (172800, 3600, "h")):
        if seconds < limit:
            return f"{seconds / unit:.4g} {name}"
    return f"{seconds / 86400:.4g} days"


def local(usec: float) -> datetime.datetime:
    """The local time with the offset of that moment."""
    return datetime.datetime.fromtimestamp(usec / 1e6, datetime.timezone.utc).astimezone()


@dataclasses.dataclass(frozen=True)
class Clock:
    """How moments of a span are written: with milliseconds when they lie close, with their offset when it changes."""

    low_usec: int
    high_usec: int
    fine: bool = False

    @property
    def offsets(self) -> list[str]:
        step = (self.high_usec - self.low_usec) / (SPOTS - 1)
        return sorted({f"{local(self.low_usec + spot * step):%z}" for spot in range(SPOTS)})

    def zone(self) -> str:
        offsets = self.offsets
        return f"local time, {offsets[0]}" if len(offsets) == 1 else "local time"

    def text(self, usec: int) -> str:
        moment = local(usec)
        milliseconds = f".{moment.microsecond // 1000:03}" if self.fine else ""
        return f"{moment:%Y-%m-%d %H:%M:%S}{milliseconds}" + (f" {moment:%z}" if len(self.offsets) > 1 else "")
