# SPDX-License-Identifier: MIT
"""Trend: the rates of the good batches, bad samples and losses, test by test, by their date."""

import math
from collections.abc import Sequence
from typing import Any

from vorn_companions.figures import canvas
from vorn_companions.figures.options import Options
from vorn_companions.figures.rate import NO_RATE
from vorn_companions.figures.rows import has_rate, rate_at, rows_by_tag, shown_tag
from vorn_companions.figures.sheet import Block, Sheet, cell, width_of
from vorn_companions.read.records import Sources, TestRow

SHARES = (95.0, 50.0, 5.0)  # of the batches: the low end, the median and the top of the band


def by_date(rows: Sequence[TestRow]) -> list[TestRow]:
    return sorted(rows, key=lambda row: row.date)


def text(sources: Sources, _options: Options) -> list[Block]:
    rows = by_date(sources.results)
    table = [[f"{row.date:%Y-%m-%d %H:%M:%S}", shown_tag(row), *(cell(rate_at(row, share)) for share in SHARES),
              str(row.bad_samples), str(row.lost), str(row.lost_in_bad)] for row in rows]
    return ["Trend: Mbit/s of the good batches, test by test",
            Sheet([("date", -21), ("tag", -width_of(map(shown_tag, rows))), ("low 5 %", 9), ("median", 9),
                   ("top 5 %", 9), ("bad", 7), ("lost", 9), ("in bad", 9)], table)]


def draw_tag(axes: Sequence[Any], rows: Sequence[TestRow], colour: Any) -> None:
    rate_axis, bad_axis, lost_axis = axes
    dates = [row.date for row in rows]
    low, median, high = ([math.nan if (rate := rate_at(row, share)) is None else rate for row in rows]
                         for share in SHARES)
    known = [index for index, rate in enumerate(low) if not math.isnan(rate)]
    rate_axis.vlines([dates[index] for index in known], [low[index] for index in known],
                     [high[index] for index in known], color=colour, alpha=0.35, linewidth=2)
    rate_axis.fill_between(dates, low, high, color=colour, alpha=0.15, linewidth=0)
    rate_axis.plot(dates, median, color=colour, marker="o", markersize=4)
    thin = {"color": colour, "linewidth": 1, "clip_on": False}
    bad_axis.plot(dates, [row.bad_samples for row in rows], marker="o", markersize=4, **thin)
    lost_axis.plot(dates, [row.lost for row in rows], marker="o", markersize=4, **thin)
    lost_axis.plot(dates, [row.lost_in_bad for row in rows], marker="x", markersize=5, linestyle="--", **thin)


def draw(sources: Sources, options: Options) -> Any:
    rows = by_date(sources.results)
    groups = rows_by_tag(rows)
    figure, axes = canvas.new_figure(options.title or "Trend", 8, 3, [3, 1, 1.3])
    rate_axis, bad_axis, lost_axis = axes
    for colour, group in zip(canvas.line_colours(len(groups)), groups.values()):
        draw_tag(axes, group, colour)
    if not any(has_rate(row) for row in rows):
        canvas.note(rate_axis, NO_RATE)
    rate_axis.set_ylabel("Mbit/s: median and\n5 to 95 % of the batches")
    bad_axis.set_ylabel("bad samples")
    lost_axis.set_ylabel("packets lost")
    for axis in (bad_axis, lost_axis):
        axis.set_ylim(0, max(1, axis.get_ylim()[1]))
        canvas.whole_ticks(axis.yaxis, 5)
    canvas.date_axis(lost_axis, rows[0].date, rows[-1].date, "end of the test")
    canvas.legend_beside(lost_axis, [
        canvas.key_line("in good batches", color="dimgray", marker="o", markersize=4),
        canvas.key_line("in bad samples", color="dimgray", marker="x", markersize=5, linestyle="--")])
    canvas.add_key(figure, rate_axis, list(groups))
    return figure
