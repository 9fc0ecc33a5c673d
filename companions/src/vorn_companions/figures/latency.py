# SPDX-License-Identifier: MIT
"""Latency: round trips and losses over the clock, and outages.

A request is lost when no echo reply came in time; in a trace any answer counts. An outage is three requests in a row
or more without an answer.
"""

from collections.abc import Sequence
from typing import Any

from vorn_companions.figures import canvas
from vorn_companions.figures.canvas import BAD_COLOUR
from vorn_companions.figures.history import (PICTURE_INTERVALS, TEXT_INTERVALS, Drawn, History, Interval, Outage, Series,
                                             draw_band, draw_points, history_of, is_few, middle_of, middles, steps,
                                             table_of, thousandths, time_axis)
from vorn_companions.figures.numbers import is_wide, loss_percent, scale_end
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.figures.units import Clock, Unit, duration, local, unit_of
from vorn_companions.read.records import Sources
from vorn_companions.words import printable

OUTAGE_REQUESTS = 3  # in a row without an answer
MOST_OUTAGES = 20
PERCENTS = (0, 5, 50, 95, 99, 100)
MIN, P5, MEDIAN, P95, P99, MAX = range(6)
NAMES = ("min", "p5", "p50", "p95", "p99", "max")
P99_ANSWERS = 100  # of fewer the 99 % are all, and that is the maximum
MOST_P99_LINES = 3  # more run into each other
P99_STYLE = {"linewidth": 0.8, "linestyle": (0, (3, 2))}


def compute(paths: Sequence[str], options: Options, most: int) -> History:
    """Points of its series: ms that PERCENTS of the answers did not exceed."""
    return history_of(table_of(paths, options, batches=False), most, thousandths(PERCENTS), OUTAGE_REQUESTS)


def shown_unit(history: History) -> Unit:
    return unit_of(series.points[P95] for series in history.series)


def loss_of(part: Interval | Series) -> float:
    return loss_percent(part.counted + part.missing, part.missing)


# --- text ---

def outage_blocks(found: Sequence[Outage], clock: Clock) -> list[Block]:
    if not found:
        return []
    longest = sorted(found, key=lambda outage: outage.begin_usec - outage.end_usec)[:MOST_OUTAGES]
    rows = [[clock.text(outage.begin_usec), clock.text(outage.end_usec),
             duration(outage.end_usec - outage.begin_usec), str(outage.requests)]
            for outage in sorted(longest, key=lambda outage: outage.begin_usec)]
    width = 2 + max(len(row[0]) for row in rows)
    which = f" (the {MOST_OUTAGES} longest of {len(found)})" if len(found) > MOST_OUTAGES else ""
    return [f"  outages: three requests in a row or more without an answer{which}",
            Sheet([("from", -width), ("to", -(width - 2)), ("for", 12), ("requests", 10)], rows, "  ")]


def text(sources: Sources, options: Options) -> list[Block]:
    history = compute(sources.stores, options, TEXT_INTERVALS)
    clock, unit = history.grid.clock, shown_unit(history)
    blocks: list[Block] = [
        f"Latency over time, in intervals of {duration(history.grid.width_usec)} ({clock.zone()})"]
    if history.without_line:
        blocks.append(f"{history.without_line} requests have no line (-s, -m) and are not counted")
    for series in history.series:
        blocks += ["", f"{printable(series.label)}: {series.counted + series.missing} requests, {series.missing} lost "
                   f"({loss_of(series):.3g} %), {len(series.outages)} outages",
                   Sheet([("", -24), *((name, 10) for name in NAMES)],
                         [[f"round trip, {unit.name}", *map(unit.cell, series.points)]], "  ")]
        rows = [[clock.text(each.start_usec), str(each.counted), str(each.missing), f"{loss_of(each):.2f}",
                 *(unit.cell(each.points[point]) for point in (P5, MEDIAN, P95, P99, MAX))]
                for each in series.intervals]
        blocks.append(Sheet([("interval from", -max(24, 2 + max(len(row[0]) for row in rows))), ("answers", 10),
                             ("lost", 8), ("lost %", 8), ("p5", 10), ("median", 10), ("p95", 10), ("p99", 10),
                             (f"max {unit.name}", 10)], rows, "  "))
        blocks += outage_blocks(series.outages, clock)
    return blocks


# --- picture ---

def scale_times(axis: Any, history: History, unit: Unit) -> None:
    """Logarithmic when the medians span much, otherwise from 0; a few stray intervals do not flatten the rest."""
    shown = [(each, median * unit.factor, top * unit.factor) for series in history.series
             for each in series.intervals if (median := each.points[MEDIAN]) is not None
             and (top := each.points[MAX]) is not None]
    if not shown:
        canvas.note(axis, "no answer")
        return
    tops = [top for _, _, top in shown]
    if is_wide([median for _, median, _ in shown]):
        axis.set_yscale("log")
        canvas.log_ticks(axis.yaxis)
        return
    end = scale_end(tops)
    if end is None:
        axis.set_ylim(0, max(1.08 * max(tops), 0.001))
    else:
        canvas.mark_outside(axis, [middle_of(each, history) for each, _, _ in shown], tops, end, unit.name, "dimgray")


def mark_outages(axis: Any, series: Series, history: History, colour: Any) -> None:
    """From the first lost request to the next answer; never too thin to see."""
    least = (history.grid.high_usec - history.grid.low_usec) / 600
    for outage in series.outages:
        extra = max(0, least - (outage.end_usec - outage.begin_usec)) / 2
        axis.axvspan(local(outage.begin_usec - extra), local(outage.end_usec + extra), color=colour, alpha=0.3,
                     linewidth=0)


def draw_series(axis: Any, series: Series, history: History, unit: Unit, colour: Any) -> None:
    def along(point: int, least: int = 1) -> Drawn:
        return middles(series, history, lambda each: unit.of(each.points[point]) if each.counted >= least else None)

    draw_band(axis, along(P5), along(MEDIAN), along(P95), colour, is_few(series))
    if len(history.series) <= MOST_P99_LINES:
        draw_points(axis, along(P99, P99_ANSWERS), colour, **P99_STYLE)
    axis.plot(*along(MAX, 2), color=colour, marker=".", markersize=3, alpha=0.7, linestyle="none")


def point_marks(history: History) -> list[Any]:
    answers = max(each.counted for series in history.series for each in series.intervals)
    marks = [canvas.key_line("99 %", color="dimgray", **P99_STYLE)] * (
        answers >= P99_ANSWERS and len(history.series) <= MOST_P99_LINES)
    return marks + [canvas.key_mark("maximum", ".", color="dimgray", markersize=4)] * (answers > 1)


def draw(sources: Sources, options: Options) -> Any:
    history = compute(sources.stores, options, PICTURE_INTERVALS)
    unit = shown_unit(history)
    figure, (times, losses) = canvas.new_figure(options.title or "Latency over time", 7, 2, [3, 1.2])
    alone = len(history.series) == 1
    for colour, series in zip(canvas.line_colours(len(history.series)), history.series):
        draw_series(times, series, history, unit, colour)
        losses.plot(*steps(series, history, loss_of), color=colour, linewidth=1, clip_on=False)
        for axis in (times, losses):
            mark_outages(axis, series, history, BAD_COLOUR if alone else colour)
    scale_times(times, history, unit)
    times.set_ylabel(f"round-trip time, {unit.name}:\nmedian, 5 to 95 %, 99 % and maximum")
    losses.set_ylabel("lost, %")
    losses.set_ylim(0, max(1, losses.get_ylim()[1]))
    time_axis(losses, history)
    labels = [f"{printable(each.label)}: {each.counted + each.missing} requests, {loss_of(each):.3g} % lost"
              for each in history.series]
    outages = sum(len(series.outages) for series in history.series)
    marks = point_marks(history)
    marks += [canvas.key_patch(f"outage ({outages})", color=BAD_COLOUR if alone else "dimgray", alpha=0.3)] * bool(
        outages)
    canvas.add_key(figure, times, labels, marks)
    return figure
