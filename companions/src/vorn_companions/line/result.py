# SPDX-License-Identifier: MIT
"""What is known about a line, figure by figure, and as one JSON object."""

import dataclasses
from typing import Any

from vorn_companions.line.delay import Delay, Probe, added_usec, grade_of

DIRECTIONS = {"down": "from the far end to this host", "up": "from this host to the far end"}


@dataclasses.dataclass(frozen=True, slots=True)
class Rate:
    """Mbit/s of UDP payload; at least so many where something else than the line held them up."""

    mbps: float
    held_up_by: str = ""  # "way back" or "hosts"; empty: the line itself

    @property
    def at_least(self) -> bool:
        return bool(self.held_up_by)


@dataclasses.dataclass(frozen=True, slots=True)
class Lossless:
    """The highest rate that was carried; `mbps` is None when none was, and `lost` and `fell_behind` tell
    of the lowest one tried."""

    mbps: float | None
    lost: float  # share of that stream
    fell_behind: bool  # it arrived ever later behind its schedule
    tried_mbps: float  # what was asked for
    seconds: float  # for which it was judged


@dataclasses.dataclass(frozen=True, slots=True)
class Hop:
    number: int  # from 1
    address: str
    rtt_usec: int  # of the first answer


@dataclasses.dataclass(frozen=True, slots=True)
class Phase:
    """A stretch of the run, in usec since the epoch."""

    name: str
    start_usec: int
    end_usec: int


@dataclasses.dataclass(slots=True)
class Line:
    """None: not measured, or not to be told; `reasons` has a sentence for what was tried in vain."""

    host: str
    label: str
    started_usec: int
    seconds: float = 0.0
    down: Rate | None = None
    up: Rate | None = None
    lossless: Lossless | None = None
    delays: dict[str, Delay] = dataclasses.field(default_factory=dict)  # idle, down, up
    rising: set[str] = dataclasses.field(default_factory=set)  # loads under which the delay still grew at the end
    hops: list[Hop] | None = None
    address: str = ""  # of the host; empty before it has answered
    reached: bool = False  # whether the last hop is the host
    reasons: list[str] = dataclasses.field(default_factory=list)
    host_losses: list[str] = dataclasses.field(default_factory=list)  # where this host itself lost packets
    stopped: bool = False
    phases: list[Phase] = dataclasses.field(default_factory=list)
    probes: dict[str, list[Probe]] = dataclasses.field(default_factory=dict)  # all that were sent in the phase
    met: dict[str, list[Probe]] = dataclasses.field(default_factory=dict)  # those that met its load in full

    def added(self, name: str) -> float | None:
        """usec that the load of this direction adds to the median round trip."""
        return added_usec(self.delays.get("idle"), self.delays.get(name))


def slowest_hop(hops: list[Hop]) -> Hop:
    """Where the first answer took longest."""
    return max(hops, key=lambda hop: hop.rtt_usec)


def rate_object(rate: Rate) -> dict[str, Any]:
    return {"mbps": round(rate.mbps, 3), "at_least": rate.at_least, "held_up_by": rate.held_up_by or None}


def delay_object(line: Line, name: str) -> dict[str, Any] | None:
    delay = line.delays.get(name)
    if delay is None:
        return None
    found: dict[str, Any] = {"median_usec": delay.median_usec, "p95_usec": delay.p95_usec,
                             "lost": round(delay.lost, 4), "requests": delay.requests}
    if name != "idle":
        added = line.added(name)
        found |= {"added_usec": added, "grade": None if added is None else grade_of(added),
                  "rising": name in line.rising}
    return found


def json_object(line: Line) -> dict[str, Any]:
    """All figures; what could not be told is null. The manual page explains every name."""
    return {
        "host": line.host, "label": line.label, "time": line.started_usec / 1e6, "seconds": round(line.seconds, 1),
        "down": line.down and rate_object(line.down), "up": line.up and rate_object(line.up),
        "lossless": line.lossless and {
            "mbps": line.lossless.mbps and round(line.lossless.mbps, 3), "lost": round(line.lossless.lost, 5),
            "fell_behind": line.lossless.fell_behind, "tried_mbps": round(line.lossless.tried_mbps, 3),
            "seconds": round(line.lossless.seconds, 1)},
        "delay": {name: delay_object(line, name) for name in ("idle", *DIRECTIONS)},
        "path": line.hops and {"reached": line.reached, "hops": [dataclasses.asdict(hop) for hop in line.hops],
                               "slowest": slowest_hop(line.hops).address},
        "host_losses": line.host_losses, "reasons": line.reasons, "stopped": line.stopped,
    }
