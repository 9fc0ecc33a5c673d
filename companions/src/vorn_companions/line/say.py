# SPDX-License-Identifier: MIT
"""The figures of a line as text that a person reads without the manual."""

import datetime
from collections.abc import Iterator, Sequence

from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.line.delay import grade_of
from vorn_companions.line.result import Line, Lossless, Rate, slowest_hop
from vorn_companions.words import printable

WHERE = {"down": "Down, from there to here", "up": "Up, from here to there"}
PINGS = {"idle": "  idle", "down": "  under load down", "up": "  under load up"}
COLUMNS = [("Round trips of pings, usec", -30), ("median", 9), ("95 %", 9), ("lost", 9), ("added", 9), ("  grade", -7)]
HELD_UP_BY = {"way back": "what goes up comes back down, and down carries no more",
              "hosts": "these hosts could not fill the line"}


def blocks_of(line: Line, loss_percent: float) -> list[Block]:
    moment = datetime.datetime.fromtimestamp(line.started_usec / 1e6)
    ending = ", then stopped" if line.stopped else ""
    return [f"Line to {printable(line.host)}, {moment:%Y-%m-%d %H:%M}, measured for {line.seconds:.1f} s{ending}",
            *rate_lines(line, loss_percent), *delay_blocks(line), *path_lines(line),
            *(f"This host itself lost packets in its {place}: it is slower than the line"
              for place in line.host_losses)]


def rate_lines(line: Line, loss_percent: float) -> Iterator[str]:
    if line.down:
        yield rate_line("down", line.down)
    if line.lossless:
        limit = f"with at most {loss_percent:g} % lost" if loss_percent else "that loses nothing"
        yield f"{'  highest rate ' + limit:36}{lossless_text(line.lossless)}"
    if line.up:
        yield rate_line("up", line.up)


def rate_line(name: str, rate: Rate) -> str:
    text = f"{WHERE[name]:36}{mbps_text(rate.mbps)}"
    return f"{text} at least: {HELD_UP_BY[rate.held_up_by]}" if rate.at_least else text


def mbps_text(mbps: float) -> str:
    return f"{mbps:9.{1 if mbps >= 20 else 2 if mbps >= 2 else 3}f} Mbit/s"


def lossless_text(found: Lossless) -> str:
    if found.mbps is None:
        trouble = f"{found.lost * 100:.2g} % lost" if found.lost else "arrives ever later"
        return f"     none: {trouble} at {found.tried_mbps:.3g} Mbit/s"
    return f"{mbps_text(found.mbps)} for {found.seconds:.1f} s"


def delay_blocks(line: Line) -> Iterator[Block]:
    if not line.delays:
        return
    rows: list[Sequence[str] | str] = [delay_row(line, name) for name in PINGS if name in line.delays]
    yield Sheet(COLUMNS, rows)
    if set(line.delays) - {"idle"}:
        yield "  (a round trip is of both ways; what a load adds, its own way's queue adds)"


def delay_row(line: Line, name: str) -> list[str]:
    delay, added = line.delays[name], line.added(name) if name != "idle" else None
    median, p95 = ("-" if usec is None else f"{usec:.0f}" for usec in (delay.median_usec, delay.p95_usec))
    growing = " and still growing" if name in line.rising else ""
    judged = ["", ""] if added is None else [f"{added:.0f}", f"  {grade_of(added)}{growing}"]
    return [PINGS[name], median, p95, f"{delay.lost * 100:.1f} %", *judged]


def path_lines(line: Line) -> Iterator[str]:
    if not line.hops:
        return
    count, slowest = len(line.hops), slowest_hop(line.hops)
    end = "" if line.reached else ", the host itself did not answer"
    yield (f"Path: {count} hop{'s' * (count != 1)}{end}; the first answer took longest at hop {slowest.number}, "
           f"{slowest.address}: {slowest.rtt_usec} usec")
