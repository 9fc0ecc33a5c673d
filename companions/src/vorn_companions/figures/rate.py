# SPDX-License-Identifier: MIT
"""Guaranteed rate: the share of the good batches of a test against the Mbit/s that they reached or beat."""

import statistics
from collections.abc import Sequence
from typing import Any, NamedTuple

from vorn_companions.figures import canvas
from vorn_companions.figures.options import Options
from vorn_companions.figures.rows import rate_at, row_labels, rows_by_tag
from vorn_companions.figures.sheet import Block, Sheet, cell, width_of
from vorn_companions.read.records import Sources, TestRow
from vorn_companions.read.tables import SHARES

SHARES_IN_TEXT = (0.0, 50.0, 90.0, 95.0, 98.0, 99.0, 99.5, 99.9, 100.0)
MOST_TESTS = 10  # more are a line a tag
TICKS = (0, 50, 75, 90, 95, 98, 99, 99.5, 99.8, 99.9, 100)
NO_RATE = "no rate: every column is 0.0"


class Point(NamedTuple):
    """Mbit/s over the tests of a line."""

    share: float
    low: float
    median: float
    high: float


def line_of(rows: Sequence[TestRow]) -> list[Point]:
    """A point a share that a row holds."""
    line = []
    for share in SHARES:
        rates = [rate for rate in (rate_at(row, share) for row in rows) if rate is not None]
        if rates:
            line.append(Point(share, min(rates), statistics.median(rates), max(rates)))
    return line


def lines_of(rows: Sequence[TestRow], by: str | None) -> dict[str, list[Point]]:
    """A line a test up to ten tests, then a line a tag, unless `by` says which."""
    if by == "tag" or (by is None and len(rows) > MOST_TESTS):
        return {tag if len(group) == 1 else f"{tag} ({len(group)} tests)": line_of(group)
                for tag, group in rows_by_tag(rows).items()}
    return {label: line_of([row]) for label, row in zip(row_labels(rows), rows)}


def text(sources: Sources, options: Options) -> list[Block]:
    lines = lines_of(sources.results, options.by)
    width = width_of(lines)
    table: list[Sequence[str] | str] = []
    for label, line in lines.items():
        median_of = {point.share: point.median for point in line}
        table.append([label, *(cell(median_of.get(share)) for share in SHARES_IN_TEXT)] if line
                     else f"{label:{width}}  {NO_RATE}")
    return ["Guaranteed rate: Mbit/s that this share of the good batches reached or beat",
            Sheet([("test", -width), *((f"{share:g} %", 8) for share in SHARES_IN_TEXT)], table)]


def show_usual_rates(axis: Any, points: Sequence[Point]) -> None:
    """Ends the scale where the fastest batches would flatten the lines of all others."""
    usual = max((point.high for point in points if point.share >= 2), default=0)
    best = max((point.high for point in points), default=0)
    if usual > 0 and best > 3 * usual:
        axis.set_xlim(right=1.25 * usual)
        canvas.outside_note(axis, f"the fastest 2 % lie beyond the scale, up to {best:g} Mbit/s")


def draw(sources: Sources, options: Options) -> Any:
    lines = lines_of(sources.results, options.by)
    figure, (axis,) = canvas.new_figure(options.title or "Guaranteed rate", 6)
    canvas.stretch_shares(axis, 100.05, TICKS)
    for colour, line in zip(canvas.line_colours(len(lines)), lines.values()):
        if line:
            shares, lows, medians, highs = zip(*line)
            tail = [index for index, share in enumerate(shares) if share >= 95]
            axis.plot(medians, shares, color=colour, linewidth=1.6, marker=".", markevery=tail, clip_on=False)
            if lows != highs:
                axis.fill_betweenx(shares, lows, highs, color=colour, alpha=0.15, linewidth=0)
    if not any(lines.values()):
        canvas.note(axis, NO_RATE)
        axis.set_xticks([])
    show_usual_rates(axis, [point for line in lines.values() for point in line])
    axis.set_xlabel("rate of the batch, Mbit/s")
    axis.set_ylabel("share of the good batches at this rate or above")
    canvas.add_key(figure, axis, [label if line else f"{label}: no rate" for label, line in lines.items()])
    return figure
