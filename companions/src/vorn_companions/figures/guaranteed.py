# SPDX-License-Identifier: MIT
"""Guaranteed: Mbit/s that a share of the good batches reached or beat over the clock, bad batches, packets lost."""

from collections.abc import Sequence
from typing import Any

from vorn_companions.figures import canvas
from vorn_companions.figures.history import (PICTURE_INTERVALS, TEXT_INTERVALS, History, draw_band, history_of, is_few,
                                             middle_of, middles, table_of, time_axis)
from vorn_companions.figures.numbers import guaranteed, scale_end
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet, cell
from vorn_companions.figures.units import duration
from vorn_companions.read.records import Sources
from vorn_companions.words import printable

SHARES = (5, 50, 95, 99)
TOP, MEDIAN, _, LOW = range(4)


def compute(paths: Sequence[str], options: Options, most: int) -> History:
    return history_of(table_of(paths, options, batches=True), most, lambda rates: guaranteed(rates / 1000, SHARES))


def text(sources: Sources, options: Options) -> list[Block]:
    history = compute(sources.stores, options, TEXT_INTERVALS)
    clock = history.grid.clock
    blocks: list[Block] = ["Guaranteed rate over time: Mbit/s that this share of the good batches reached or beat, in "
                           f"intervals of {duration(history.grid.width_usec)} ({clock.zone()})"]
    for series in history.series:
        blocks += ["", f"{printable(series.label)}: {series.counted + series.missing} batches, {series.missing} bad"]
        rows = [[clock.text(each.start_usec), str(each.counted), str(each.missing), str(each.packets_lost),
                 *map(cell, each.points)] for each in series.intervals]
        if len(rows) > 1:
            rows.append(["all", str(series.counted), str(series.missing), str(series.packets_lost),
                         *map(cell, series.points)])
        blocks.append(Sheet([("interval from", -max(24, 2 + max(len(row[0]) for row in rows))), ("good", 8),
                             ("bad", 8), ("pkts lost", 11), *((f"{share} %", 9) for share in SHARES)], rows, "  "))
    return blocks


def draw(sources: Sources, options: Options) -> Any:
    history = compute(sources.stores, options, PICTURE_INTERVALS)
    figure, (rates, bad, lost) = canvas.new_figure(options.title or "Guaranteed rate over time", 8, 3, [3, 1, 1])
    for colour, series in zip(canvas.line_colours(len(history.series)), history.series):
        low, middle, top = (middles(series, history, lambda each, point=point: each.points[point])  # type: ignore[misc]
                            for point in (LOW, MEDIAN, TOP))
        draw_band(rates, low, middle, top, colour, is_few(series))
        thin = {"color": colour, "linewidth": 1, "marker": ".", "markersize": 4, "clip_on": False}
        bad.plot(*middles(series, history, lambda each: each.missing), **thin)
        lost.plot(*middles(series, history, lambda each: each.packets_lost), **thin)
    shown = [(each, each.points[TOP]) for series in history.series for each in series.intervals]
    tops = [top for _, top in shown if top is not None]
    end = scale_end(tops)
    if not tops:
        canvas.note(rates, "no good batch")
    elif end is None:
        rates.set_ylim(0, max(1.08 * max(tops), 0.1))
    else:
        canvas.mark_outside(rates, [middle_of(each, history) for each, top in shown if top is not None], tops, end,
                            "Mbit/s", "dimgray")
    rates.set_ylabel("rate, Mbit/s: median, and what\n99 % and 5 % of the batches reached")
    for axis, name in ((bad, "bad batches"), (lost, "packets lost")):
        axis.set_ylabel(name)
        axis.set_ylim(0, max(1, axis.get_ylim()[1]))
        canvas.whole_ticks(axis.yaxis, 4)
    time_axis(lost, history)
    canvas.add_key(figure, rates, [f"{printable(each.label)}: {each.counted + each.missing} batches, "
                                   f"{each.missing} bad" for each in history.series])
    return figure
