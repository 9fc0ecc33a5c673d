# SPDX-License-Identifier: MIT
"""Histories: what stores hold, by the line it belongs to and by intervals of the time that it spans."""

import dataclasses
import math
import statistics
from collections.abc import Callable, Iterator, Sequence
from typing import Any, NamedTuple

import numpy

from vorn_companions.figures import canvas
from vorn_companions.figures.numbers import percentiles
from vorn_companions.figures.options import Options
from vorn_companions.figures.units import Clock, duration, local
from vorn_companions.store import reading
from vorn_companions.store.database import Store, reading as opened
from vorn_companions.store.reading import Integers, StoredRun
from vorn_companions.words import NothingChosen

# Widths of intervals in seconds; from a day on in whole days.
WIDTHS = tuple(step * 10.0 ** power for power in (-3, -2, -1) for step in (1, 2, 5)) + (
    1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200) + tuple(
    86400 * days for days in (1, 2, 5, 7, 14, 28, 56, 112, 365, 3650))

GROUPINGS = ("host", "label", "run", "site")
TEXT_INTERVALS = 24
PICTURE_INTERVALS = 300


class Table(NamedTuple):
    """An entry a request or a batch of all stores: by store, by run, then by time."""

    time_usec: Integers
    value: Integers  # usec or kbit/s; -1: missing
    run: Integers  # of no two stores the same
    lost: Integers  # packets, of batches
    line: Integers  # index of its label
    labels: list[str]
    every_usec: Integers  # by run; 0: it is not one of a series
    without_line: int  # requests that were sent and have no record


@dataclasses.dataclass
class Grid:
    """Intervals of the time that the records span."""

    origin_usec: int
    width_usec: int
    count: int
    low_usec: int  # of the first record
    high_usec: int

    @property
    def clock(self) -> Clock:
        return Clock(self.low_usec, self.high_usec, self.width_usec < 1000000)


@dataclasses.dataclass
class Interval:
    start_usec: int
    counted: int  # answers, or good batches
    missing: int  # lost requests, or bad batches
    points: list[float | None]  # the percentiles that were asked for
    packets_lost: int


@dataclasses.dataclass
class Outage:
    begin_usec: int
    end_usec: int
    requests: int


@dataclasses.dataclass
class Series:
    """One line of a picture."""

    label: str
    intervals: list[Interval]
    counted: int  # over all intervals
    missing: int
    packets_lost: int
    points: list[float | None]  # over all intervals
    outages: list[Outage]


@dataclasses.dataclass
class History:
    grid: Grid
    series: list[Series]
    gap_usec: float  # records further apart than this are not joined by a line
    without_line: int


# --- rows ---

def run_label(run: StoredRun) -> str:
    where = f"{run.label}, " if run.label else f"{run.towards}, " if run.towards else ""
    return f"{where}{local(run.start_usec):%Y-%m-%d %H:%M:%S}"


LABEL_OF: dict[str, Callable[[StoredRun], str]] = {
    "host": lambda run: run.towards,
    "label": lambda run: run.label or "no label",
    "site": lambda run: run.site,
    "run": run_label,
}


def table_of(paths: Sequence[str], options: Options, batches: bool) -> Table:
    """All rows that the options choose. Raises NothingChosen when there are none."""
    labels: dict[str, int] = {}
    parts: list[list[Integers]] = []
    every: list[int] = []
    without_line = 0
    by = options.by or "host"
    for path in paths:
        with opened(path) as store:
            runs = reading.runs(store)
            rows = read_rows(store, options, batches)
            texts = (reading.name_texts(store) if by == "host" and not batches
                     else {run.id: LABEL_OF[by](run) for run in runs})
            key = rows[4] if by == "host" and not batches else rows[2]
            numbers = numpy.zeros(max(texts, default=0) + 1, numpy.int32)
            for number in numpy.flatnonzero(numpy.bincount(key)):
                numbers[number] = labels.setdefault(texts[int(number)], len(labels))
            base = len(every)
            every += [0] * (max((run.id for run in runs), default=0) + 1)
            for run in runs:
                every[base + run.id] = run.every_usec or 0
            parts.append([rows[0], rows[1], rows[2] + base, rows[3], numbers[key]])
            if not batches and options.selection.takes_whole_runs:
                sent = sum(run.sent for run in reading.runs(store, options.selection) if run.sent is not None)
                without_line += max(0, sent - len(key))
    if not labels:
        kind = "batch" if batches else "request"
        raise NothingChosen(", ".join(paths), None, f"no record of a {kind}{options.selection.given}")
    columns = parts[0] if len(parts) == 1 else [numpy.concatenate(part) for part in zip(*parts)]
    return Table(columns[0], columns[1], columns[2], columns[3], columns[4], list(labels), numpy.array(every),
                 without_line)


def read_rows(store: Store, options: Options, batches: bool) -> tuple[Integers, ...]:
    """time, value, run, packets lost; of requests the host."""
    if batches:
        found = reading.batches(store, options.selection)
        return found.time_usec, found.value, found.run, found.lost
    rows = reading.requests(store, options.selection)
    return rows.time_usec, rows.value, rows.run, numpy.broadcast_to(numpy.int64(0), rows.run.shape), rows.host


def lines_of(table: Table) -> Iterator[tuple[str, Any]]:
    """Each label with what chooses its rows."""
    for number, label in enumerate(table.labels):
        yield label, slice(None) if len(table.labels) == 1 else table.line == number


# --- intervals ---

def grid_over(times: Integers, most: int) -> Grid:
    """Of at most about `most` intervals, on round times of the local clock as it stands at the first record."""
    low, high = int(times.min()), int(times.max())
    width = next((width for width in WIDTHS if (high - low) / 1e6 <= width * most), WIDTHS[-1])
    width_usec = round(width * 1e6)
    offset = local(low).utcoffset()
    offset_usec = round(offset.total_seconds() * 1e6) if offset else 0
    origin = (low + offset_usec) // width_usec * width_usec - offset_usec
    return Grid(origin, width_usec, (high - origin) // width_usec + 1, low, high)


Points = Callable[[Integers], list[float | None]]


def intervals_of(grid: Grid, times: Integers, values: Integers, lost: Integers, points: Points) -> list[Interval]:
    """The intervals that hold anything."""
    index = ((times - grid.origin_usec) // grid.width_usec).astype(numpy.int32)
    order = numpy.argsort(index, kind="stable").astype(numpy.int32)
    filled, starts = numpy.unique(index[order], return_index=True)
    found = []
    for number, part in zip(filled, numpy.split(order, starts[1:])):
        own = values[part]
        counted = own[own >= 0]
        found.append(Interval(int(grid.origin_usec + number * grid.width_usec), len(counted),
                              len(own) - len(counted), points(counted), int(lost[part].sum())))
    return found


def outages(times: Integers, runs: Integers, lost: Any, every_usec: Integers, least: int) -> list[Outage]:
    """`least` requests in a row or more without an answer, from the first of them to the next answer.

    Between two runs nobody looked, unless they are of one series and none of it was left out.
    """
    gaps = numpy.diff(times)
    apart = (numpy.diff(runs) != 0) & ((gaps < 0) | (gaps > 2.5 * every_usec[runs[1:]]))
    begins = numpy.concatenate(([True], apart | (lost[1:] != lost[:-1])))
    starts = numpy.flatnonzero(begins)
    ends = numpy.append(starts[1:], len(times)) - 1
    found = []
    for first, last in zip(starts, ends):
        if lost[first] and last - first + 1 >= least:
            end = last + 1 if last + 1 < len(times) and not apart[last] else last
            found.append(Outage(int(times[first]), int(times[end]), int(last - first + 1)))
    return found


def history_of(table: Table, most: int, points: Points, outage_requests: int = 0) -> History:
    """`points` gives the percentiles of values in thousandths of ms or Mbit/s."""
    grid = grid_over(table.time_usec, most)
    series = []
    for label, own in lines_of(table):
        times, values, lost = table.time_usec[own], table.value[own], table.lost[own]
        intervals = intervals_of(grid, times, values, lost, points)
        counted = values[values >= 0]
        series.append(Series(label, intervals, len(counted), len(values) - len(counted), int(lost.sum()),
                             points(counted), outages(times, table.run[own], values < 0, table.every_usec,
                                                      outage_requests) if outage_requests else []))
    steps = [after.start_usec - before.start_usec for each in series
             for before, after in zip(each.intervals, each.intervals[1:])]
    every = int(table.every_usec[numpy.unique(table.run)].max())
    gap = 3 * max(grid.width_usec, statistics.median(steps) if steps else 0, every)
    return History(grid, series, gap, table.without_line)


def thousandths(percents: Sequence[float]) -> Points:
    return lambda values: percentiles(values / 1000, percents)


# --- pictures ---

Drawn = tuple[list[Any], list[float]]


def middles(series: Series, history: History, value_of: Callable[[Interval], float | None]) -> Drawn:
    """(times, values) at the middle of the intervals, broken where nothing was recorded for long."""
    times: list[Any] = []
    values: list[float] = []
    for before, interval in zip([None, *series.intervals], series.intervals):
        if before and interval.start_usec - before.start_usec > history.gap_usec:
            times.append(local(before.start_usec + history.grid.width_usec))
            values.append(math.nan)
        value = value_of(interval)
        times.append(local(interval.start_usec + history.grid.width_usec / 2))
        values.append(math.nan if value is None else value)
    return times, values


def steps(series: Series, history: History, value_of: Callable[[Interval], float]) -> Drawn:
    """(times, values) level over each interval, up to the next one that is not long after; blank in between."""
    times: list[Any] = []
    values: list[float] = []
    for interval, after in zip(series.intervals, [*series.intervals[1:], None]):
        end = interval.start_usec + history.grid.width_usec
        joined = after is not None and after.start_usec - interval.start_usec <= history.gap_usec
        times += [local(interval.start_usec), local(after.start_usec if after and joined else end)]
        values += [value_of(interval)] * 2
        if not joined:
            times.append(times[-1])
            values.append(math.nan)
    return times, values


def lonely(values: Sequence[float]) -> list[int]:
    """Indices of values without a neighbour, which a line would not show."""
    known = [False, *(not math.isnan(value) for value in values), False]
    return [index for index in range(len(values)) if known[index + 1] and not known[index] and not known[index + 2]]


def draw_points(axis: Any, drawn: Drawn, colour: Any, **style: Any) -> None:
    """A line; a dot where a value stands alone."""
    times, values = drawn
    axis.plot(times, values, color=colour, **style)
    alone = lonely(values)
    axis.plot([times[index] for index in alone], [values[index] for index in alone], color=colour, marker=".",
              markersize=4, linestyle="none")


def draw_band(axis: Any, low: Drawn, middle: Drawn, high: Drawn, colour: Any, few: bool) -> None:
    """The band from one point to another around the line of a third; whatever stands alone is a dot or a stroke."""
    times = low[0]
    axis.fill_between(times, low[1], high[1], color=colour, alpha=0.2, linewidth=0)
    if few:
        known = [index for index, value in enumerate(low[1]) if not math.isnan(value)]
        axis.vlines(*([part[index] for index in known] for part in (times, low[1], high[1])), color=colour, alpha=0.35,
                    linewidth=2)
    draw_points(axis, middle, colour, linewidth=1.3, marker="." if few else None, markersize=6)


def is_few(series: Series) -> bool:
    return len(series.intervals) <= 60


def time_axis(axis: Any, history: History) -> None:
    grid = history.grid
    single = all(each.counted + each.missing == 1 for series in history.series for each in series.intervals)
    what = "time" if single else f"intervals of {duration(grid.width_usec)}"
    canvas.date_axis(axis, local(grid.low_usec), local(grid.high_usec), what)
    if grid.high_usec > grid.low_usec:
        margin = max((grid.high_usec - grid.low_usec) * 0.01, grid.width_usec)
        axis.set_xlim(local(grid.low_usec - margin), local(grid.high_usec + margin))


def middle_of(interval: Interval, history: History) -> Any:
    return local(interval.start_usec + history.grid.width_usec / 2)
