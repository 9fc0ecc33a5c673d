# SPDX-License-Identifier: MIT
"""A line against limits, and the exit status that tells how it went."""

import dataclasses

from vorn_companions.line.result import DIRECTIONS, Line

MET, MISSED, NOT_MEASURED = 0, 1, 2


@dataclasses.dataclass(frozen=True, slots=True)
class Limits:
    """None: no limit."""

    min_mbps: dict[str, float | None]  # by direction
    max_added_usec: float | None


def judge(line: Line, limits: Limits) -> tuple[int, list[str]]:
    """The exit status, and a sentence for each limit that was missed and for each figure that is missing."""
    missed, unknown = [], list(line.reasons)
    for name, least in limits.min_mbps.items():
        rate = {"down": line.down, "up": line.up}[name]
        if least is None:
            continue
        if rate is None:
            unknown.append(f"{name}: the rate was not measured")
        elif rate.mbps < least and rate.at_least:
            unknown.append(f"{name}: whether the rate reaches {least:g} Mbit/s cannot be told from here")
        elif rate.mbps < least:
            missed.append(f"{name}: {rate.mbps:.3g} Mbit/s are less than {least:g}")
    for name in DIRECTIONS:
        added = line.added(name)
        if limits.max_added_usec is not None and added is not None and added > limits.max_added_usec:
            missed.append(f"{name}: the load adds {added / 1000:.1f} msec, more than {limits.max_added_usec / 1000:g}")
    if limits.max_added_usec is not None and not any(line.added(name) is not None for name in DIRECTIONS):
        unknown.append("the delay under load was not measured")
    return (NOT_MEASURED if unknown else MISSED if missed else MET), missed + unknown
