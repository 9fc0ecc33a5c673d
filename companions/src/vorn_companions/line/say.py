# SPDX-License-Identifier: MIT
"""The figures of a line as lines that a person reads without the manual."""

import datetime
from collections.abc import Iterator

from vorn_companions.line.delay import grade_of
from vorn_companions.line.result import Line, Lossless, Rate, slowest_hop
from vorn_companions.words import printable

WHERE = {"down": "Down, from there to here", "up": "Up, from here to there"}
HELD_UP = "what goes up comes back down, and down carries no more"
NOT_FILLED = "these hosts could not fill the line"


def text_of(line: Line, loss_percent: float) -> list[str]:
    moment = datetime.datetime.fromtimestamp(line.started_usec / 1e6)
    ending = ", then stopped" if line.stopped else ""
    return [f"Line to {printable(line.host)}, {moment:%Y-%m-%d %H:%M}, measured for {line.seconds:.1f} s{ending}",
            *rate_lines(line, loss_percent), *delay_lines(line), *path_lines(line),
            *(f"This host itself lost packets in its {place}: it is slower than the line"
              for place in line.host_losses)]


def rate_lines(line: Line, loss_percent: float) -> Iterator[str]:
    if line.down:
        yield rate_line("down", line.down, NOT_FILLED)
    if line.lossless:
        limit = f"with at most {loss_percent:g} % lost" if loss_percent else "that loses nothing"
        yield f"{'  highest rate ' + limit:36}{lossless_text(line.lossless)}"
    if line.up:
        yield rate_line("up", line.up, HELD_UP if line.down else NOT_FILLED)


def rate_line(name: str, rate: Rate, reason: str) -> str:
    text = f"{WHERE[name]:36}{mbps_text(rate.mbps)}"
    return f"{text} at least: {reason}" if rate.at_least else text


def mbps_text(mbps: float) -> str:
    return f"{mbps:9.{1 if mbps >= 20 else 2 if mbps >= 2 else 3}f} Mbit/s"


def lossless_text(found: Lossless) -> str:
    if found.mbps is None:
        return f"     none: {found.lost * 100:.2g} % lost at {found.tried_mbps:.3g} Mbit/s"
    return f"{mbps_text(found.mbps)} for {found.seconds:.1f} s"


def delay_lines(line: Line) -> Iterator[str]:
    if not line.delays:
        return
    yield f"{'Round trips of pings, usec':30}{'median':>9}{'95 %':>9}{'lost':>9}{'added':>9}  grade"
    for name, title in (("idle", "  idle"), ("down", "  under load down"), ("up", "  under load up")):
        delay = line.delays.get(name)
        if delay is None:
            continue
        median, p95 = ("-" if usec is None else f"{usec:.0f}" for usec in (delay.median_usec, delay.p95_usec))
        added = line.added(name) if name != "idle" else None
        judged = "" if added is None else f"{added:9.0f}  {grade_of(added)}"
        growing = "  and still growing" if name in line.rising else ""
        yield f"{title:30}{median:>9}{p95:>9}{delay.lost * 100:>7.1f} %{judged}{growing}"
    if set(line.delays) - {"idle"}:
        yield "  (a round trip is of both ways; what a load adds, its own way's queue adds)"


def path_lines(line: Line) -> Iterator[str]:
    if not line.hops:
        return
    count, slowest = len(line.hops), slowest_hop(line.hops)
    end = "" if line.reached else ", the host itself did not answer"
    yield (f"Path: {count} hop{'s' * (count != 1)}{end}; the first answer took longest at hop {slowest.number}, "
           f"{slowest.address}: {slowest.rtt_usec} usec")
