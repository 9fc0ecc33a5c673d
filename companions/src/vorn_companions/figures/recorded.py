# SPDX-License-Identifier: MIT
"""The figures of records: a store read once, in chunks, into sorted numbers.

A month of one ping a second is 2.6 million rows. Each becomes one 64-bit number, group above, value below, so that one
sort gives every percentile of every group.
"""

import array
import dataclasses
import datetime
import itertools
import math
import statistics

from vorn_companions.store import database as store
from vorn_companions.figures.computed import round_trips, run_labels
from vorn_companions.words import Unreadable

CHUNK = 50_000  # rows
MISSING = 0xFFFFFFFF  # the value of what was lost or bad: behind all others of its group
OUTAGE_REQUESTS = 3  # in a row without an answer

# Widths of intervals in seconds; from a day on in whole days.
WIDTHS = tuple(step * 10.0 ** power for power in (-3, -2, -1) for step in (1, 2, 5)) + (
    1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200) + tuple(
    86400 * days for days in (1, 2, 5, 7, 14, 28, 56, 112, 365, 3650))

GROUPINGS = ("host", "label", "run", "site")


@dataclasses.dataclass
class Grid:
    """Intervals of the time that the records span."""

    origin_usec: int
    width_usec: int
    count: int
    low_usec: int  # of the first record
    high_usec: int


@dataclasses.dataclass
class Interval:
    start_usec: int
    counted: int  # answers, or good batches
    missing: int  # lost requests, or bad batches
    points: list  # the percentiles that were asked for; None without a value
    packets_lost: int = 0


@dataclasses.dataclass
class Outage:
    begin_usec: int
    end_usec: int
    requests: int


@dataclasses.dataclass
class Series:
    """One line of a picture."""

    label: str
    intervals: list
    counted: int  # over all intervals
    missing: int
    ordered: object  # thousandths of ms or Mbit/s, all that was counted in order; None unless asked for
    outages: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class History:
    grid: Grid
    series: list
    gap_usec: int  # records further apart than this are not joined by a line
    without_line: int = 0  # requests that were sent and have no record


def has_requests(paths):
    return any(store.open_to_read(path).db.execute("SELECT 1 FROM echo LIMIT 1").fetchone() for path in paths)


def has_batches(paths):
    return any(store.open_to_read(path).db.execute("SELECT 1 FROM batch LIMIT 1").fetchone() for path in paths)


def selection_of(args):
    return store.Selection(since_usec=args.since, host=args.host, label=args.label)


def refuse_nothing(paths, args, what):
    chosen = [f"--{name} {getattr(args, name + '_text', None) or getattr(args, name)}"
              for name in ("since", "host", "label") if getattr(args, name) is not None]
    raise Unreadable(", ".join(paths), None, f"no record of a {what}" + (f" with {' '.join(chosen)}" * bool(chosen)))


def local_time(usec):
    return datetime.datetime.fromtimestamp(usec / 1e6)


# --- intervals ---

def time_range(opened, selection, table):
    """(first, last) time of the selected rows of one store; (None, None) without any."""
    where, values = store.conditions(dataclasses.replace(selection, since_usec=None, host=None), [], "")
    since = selection.since_usec or 0
    if selection.host is None:  # two steps down the tree for each run, however many rows it has
        return opened.db.execute(
            f"SELECT min(low), max(high) FROM (SELECT (SELECT min(time_usec) FROM {table} WHERE run = r.id "
            f"AND time_usec >= ?) low, (SELECT max(time_usec) FROM {table} WHERE run = r.id AND time_usec >= ?) high "
            f"FROM run r WHERE {where})", (since, since, *values)).fetchone()
    rows = store.echo_rows(opened, selection) if table == "echo" else store.batch_rows(opened, selection)
    times = [row[0] for row in rows]
    return (min(times), max(times)) if times else (None, None)


def grid_over(opened, selection, table, most):
    """The Grid over the selected rows of all stores, of at most about `most` intervals; None without a row."""
    ranges = [found for found in (time_range(each, selection, table) for each in opened) if found[0] is not None]
    if not ranges:
        return None
    low, high = min(low for low, _ in ranges), max(high for _, high in ranges)
    width = next((width for width in WIDTHS if (high - low) / 1e6 <= width * most), WIDTHS[-1])
    width_usec = round(width * 1e6)
    offset = round((local_time(low) - datetime.datetime(1970, 1, 1)).total_seconds() * 1e6) - low  # of local time
    origin = (low + offset) // width_usec * width_usec - offset
    return Grid(origin, width_usec, (high - origin) // width_usec + 1, low, high)


# --- series ---

def run_label(run):
    where = f"{run.label}, " if run.label else f"{run.target or run.asked}, " if run.target or run.asked else ""
    return f"{where}{local_time(run.start_usec):%Y-%m-%d %H:%M:%S}"


class Labels:
    """Gives every host, label, site or run its number; the same over all stores."""

    def __init__(self, by):
        self.by = by
        self.texts = []
        self.numbers = {}

    def number(self, text):
        if text not in self.numbers:
            self.numbers[text] = len(self.texts)
            self.texts.append(text)
        return self.numbers[text]

    def tables(self, opened, runs):
        """Arrays from the id of a run, and of a name, to the number of the series; one of the two is None."""
        import numpy
        if self.by == "host":
            names = store.name_texts(opened)
            table = numpy.zeros(max(names) + 1, "i8")
            for number, text in names.items():
                table[number] = self.number(text)
            return None, table
        text_of = {"label": lambda run: run.label or "no label", "site": lambda run: run.site,
                   "run": run_label}[self.by]
        table = numpy.zeros(max((run.id for run in runs), default=0) + 1, "i8")
        for run in runs:
            table[run.id] = self.number(text_of(run))
        return table, None


def chunks(cursor, columns):
    """Arrays of a row for each column, of up to CHUNK rows of whole numbers."""
    import numpy
    numbers = itertools.chain.from_iterable(cursor)
    while len(chunk := numpy.fromiter(itertools.islice(numbers, CHUNK * columns), "i8")):
        yield chunk.reshape(-1, columns).T


def request_chunks(opened, selection, labels, runs, origin_usec=0, unit_usec=10**6):
    """Arrays of time (usec since the origin), round trip (negative: lost), run and series, chunk by chunk."""
    run_table, name_table = labels.tables(opened, runs)
    for what, where in chunks(store.echo_numbers(opened, selection, origin_usec, unit_usec), 2):
        run = where >> 32
        series = name_table[where & 0xFFFFFFFF] if run_table is None else run_table[run]
        yield (what >> 32) * unit_usec, (what & 0xFFFFFFFF) - 1, run, series


def unit_of(grid):
    """The finest unit in which the times of the grid fit into 31 bits; every interval is a whole number of them."""
    return next(unit for unit in (1000, 10_000, 1_000_000) if grid.count * grid.width_usec // unit < 1 << 31)


# --- sorted values ---

class Values:
    """Values of groups, one number each; a group is a series and an interval."""

    def __init__(self):
        self.packed = array.array("q")

    def add(self, groups, values, missing):
        import numpy
        low = numpy.where(missing, MISSING, numpy.clip(values, 0, MISSING - 1).astype("i8"))
        self.packed.frombytes(((groups << 32) | low).tobytes())

    def sorted(self):
        import numpy
        values = numpy.frombuffer(self.packed, "i8") if self.packed else numpy.zeros(0, "i8")
        values.sort()
        return values


def rank(counts, percent, from_top):
    """Where in each group of so many values the percentile stands."""
    import numpy
    steps = numpy.maximum(0, numpy.ceil(counts * percent / 100 - 1e-9).astype("i8") - 1)
    return counts - 1 - steps if from_top else steps


def intervals_of(values, number, grid, percents, from_top):
    """The Intervals of series `number` that hold anything, from the sorted numbers of all."""
    import numpy
    groups = numpy.arange(number * grid.count, (number + 1) * grid.count + 1, dtype="i8") << 32
    edges = numpy.searchsorted(values, groups)
    ends = numpy.searchsorted(values, groups[:-1] | MISSING)
    counted, missing = ends - edges[:-1], edges[1:] - ends
    filled = numpy.flatnonzero(counted + missing)
    points = []
    for percent in percents:
        places = numpy.minimum(edges[:-1] + rank(numpy.maximum(counted, 1), percent, from_top), len(values) - 1)
        points.append((values[places] & MISSING) / 1000)
    return [Interval(int(grid.origin_usec + index * grid.width_usec), int(counted[index]), int(missing[index]),
                     [float(point[index]) if counted[index] else None for point in points]) for index in filled]


def values_of(values, number, intervals):
    """(all values of a series in order, in thousandths of their unit; how many are missing)."""
    import numpy
    low, high = numpy.searchsorted(values, [(number * intervals) << 32, ((number + 1) * intervals) << 32])
    own = (values[low:high] & MISSING).astype("u4")
    own.sort()
    counted = int(numpy.searchsorted(own, MISSING))
    return own[:counted], len(own) - counted


# --- outages ---

class Streak:
    """Finds requests in a row without an answer in the rows of one series, which come in the order of time."""

    def __init__(self):
        self.open = None  # an Outage that may go on
        self.last = None  # (time, run) of the row before
        self.found = []

    def close(self, end_usec=None):
        if self.open and self.open.requests >= OUTAGE_REQUESTS:
            self.open.end_usec = self.open.end_usec if end_usec is None else int(end_usec)
            self.found.append(self.open)
        self.open = None

    def take(self, times, runs, lost, every):
        """`every`: array from the id of a run to usec, 0 for a run that is not one of a series."""
        import numpy
        time_before, run_before = self.last or (times[0], runs[0])
        gaps = numpy.diff(times, prepend=time_before)
        # Between two runs nobody looked, unless they are of one series and none was left out.
        apart = (numpy.diff(runs, prepend=run_before) != 0) & ((gaps < 0) | (gaps > 2.5 * every[runs]))
        self.last = (times[-1], runs[-1])
        if self.open and (apart[0] or not lost[0]):
            self.close(None if apart[0] else times[0])
        starts = numpy.flatnonzero(lost & (apart | ~numpy.concatenate(([False], lost[:-1]))))
        ends = numpy.flatnonzero(lost & numpy.concatenate((apart[1:] | ~lost[1:], [True])))
        at_edge = (starts == 0) | (ends == len(times) - 1)
        for first, last in zip(*(part[(ends - starts >= OUTAGE_REQUESTS - 1) | at_edge] for part in (starts, ends))):
            count = int(last - first + 1)
            if self.open:  # goes on from the chunk before
                self.open.requests += count
                self.open.end_usec = int(times[last])
            else:
                self.open = Outage(int(times[first]), int(times[last]), count)
            if last + 1 < len(times):
                self.close(None if apart[last + 1] else times[last + 1])


def take_streaks(streaks, series, times, runs, lost, every):
    import numpy
    present = numpy.unique(series)
    for number in present:
        own = slice(None) if len(present) == 1 else series == number
        streaks.setdefault(int(number), Streak()).take(times[own], runs[own], lost[own], every)


# --- histories ---

def every_of(runs):
    import numpy
    every = numpy.zeros(max((run.id for run in runs), default=0) + 1, "i8")
    for run in runs:
        every[run.id] = run.every_usec or 0
    return every


def history_of(grid, labels, values, percents, whole, from_top=False):
    """A History without outages; `None` holds the place of a series without a value."""
    series = []
    for number, text in enumerate(labels.texts):
        intervals = intervals_of(values, number, grid, percents, from_top) if len(values) else []
        counted, missing = sum(each.counted for each in intervals), sum(each.missing for each in intervals)
        ordered = values_of(values, number, grid.count)[0] if whole and intervals else None
        series.append(Series(text, intervals, counted, missing, ordered) if intervals else None)
    return History(grid, series, 0)


def finish(history, gaps):
    history.series = [each for each in history.series if each]
    steps = [after.start_usec - before.start_usec for each in history.series
             for before, after in itertools.pairwise(each.intervals)]
    usual = statistics.median(steps) if steps else 0
    history.gap_usec = 3 * max([history.grid.width_usec, usual, *gaps])
    return history


def whole_runs_only(selection):
    return selection.host is None and selection.since_usec is None


def latency(paths, args, most, whole=False):
    """The History of the round trips (points: 5, 50, 95 %; ms) in at most about `most` intervals.

    `whole`: with all values of each series in order.
    """
    opened, selection = [store.open_to_read(path) for path in paths], selection_of(args)
    grid = grid_over(opened, selection, "echo", most)
    if grid is None:
        refuse_nothing(paths, args, "request")
    labels, values, streaks, gaps, without_line = Labels(args.by or "host"), Values(), {}, [0], 0
    for each in opened:
        runs = store.runs(each)
        every = every_of(runs)
        rows_read = 0
        for times, trips, run, series in request_chunks(each, selection, labels, runs, grid.origin_usec, unit_of(grid)):
            lost = trips < 0
            values.add(series * grid.count + times // grid.width_usec, trips, lost)
            take_streaks(streaks, series, times + grid.origin_usec, run, lost, every)
            rows_read += len(times)
        chosen = store.runs(each, selection)
        gaps += [run.every_usec or 0 for run in chosen]
        if whole_runs_only(selection):
            ended = [run.sent for run in chosen if run.sent is not None]
            without_line += max(0, sum(ended) - rows_read)
    history = history_of(grid, labels, values.sorted(), (5, 50, 95), whole)
    for number, streak in streaks.items():
        streak.close()
        history.series[number].outages = streak.found
    history.without_line = without_line
    return finish(history, gaps)


GUARANTEED_SHARES = (5, 50, 95, 99)


def guaranteed(paths, args, most):
    """The History of the batches; points: Mbit/s that GUARANTEED_SHARES of the good batches reached or beat."""
    import numpy
    opened, selection = [store.open_to_read(path) for path in paths], selection_of(args)
    grid = grid_over(opened, selection, "batch", most)
    if grid is None:
        refuse_nothing(paths, args, "batch")
    labels, values, gaps, losses = Labels(args.by or "host"), Values(), [0], {}
    for each in opened:
        runs = store.runs(each)
        if labels.by == "host":
            table = numpy.zeros(max((run.id for run in runs), default=0) + 1, "i8")
            for run in runs:
                table[run.id] = labels.number(run.target or run.asked)
        else:
            table, _ = labels.tables(each, runs)
        rows = ((time, -1 if rate is None or bad else rate, max(0, size - received), run)
                for time, rate, _, bad, received, size, run in store.batch_rows(each, selection))
        for times, rates, lost, run in chunks(rows, 4):
            groups = table[run] * grid.count + (times - grid.origin_usec) // grid.width_usec
            values.add(groups, rates, rates < 0)
            for group in numpy.unique(groups[lost > 0]):
                losses[int(group)] = losses.get(int(group), 0) + int(lost[groups == group].sum())
        gaps += [run.every_usec or 0 for run in store.runs(each, selection)]
    history = history_of(grid, labels, values.sorted(), GUARANTEED_SHARES, False, from_top=True)
    for number, series in enumerate(history.series):
        for interval in series.intervals if series else ():
            index = (interval.start_usec - grid.origin_usec) // grid.width_usec
            interval.packets_lost = losses.get(number * grid.count + index, 0)
    return finish(history, gaps)


# --- distributions ---

@dataclasses.dataclass
class Distribution:
    label: str
    ordered: object  # thousandths of ms, in order
    lost: int


def distributions(items, args):
    """The Distributions of the round trips of paths of stores, or of Runs."""
    import numpy
    if not isinstance(items[0], str):
        return [Distribution(label, numpy.rint(numpy.asarray(round_trips(run), "f8") * 1000).astype("i8"),
                             sum(not request.answer for request in run.items))
                for label, run in zip(run_labels(items), items)]
    selection = selection_of(args)
    labels, values = Labels(args.by or "host"), Values()
    for path in items:
        opened = store.open_to_read(path)
        for _, trips, _, series in request_chunks(opened, selection, labels, store.runs(opened)):
            values.add(series, trips, trips < 0)
    together = values.sorted()
    found = [Distribution(text, *values_of(together, number, 1)) for number, text in enumerate(labels.texts)]
    found = [each for each in found if len(each.ordered) or each.lost]
    return found or refuse_nothing(items, args, "request")


def point(ordered, percent):
    """ms or Mbit/s: the smallest value that `percent` of the values do not exceed; None without a value."""
    if not len(ordered):
        return None
    return float(ordered[max(0, math.ceil(len(ordered) * percent / 100 - 1e-9) - 1)]) / 1000


def loss_percent(counted, missing):
    return 100 * missing / (counted + missing) if counted + missing else 0.0
