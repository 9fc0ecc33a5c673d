# SPDX-License-Identifier: MIT
"""Pictures of records: latency and guaranteed rate over the clock, distributions of round trips."""

import math

from vorn_companions.figures.canvas import (BAD_COLOUR, add_key, date_axis, line_colours, log_ticks, mark_outside, new_figure, note,
                             whole_ticks)
from vorn_companions.figures.computed import scale_end
from vorn_companions.figures.record_text import duration
from vorn_companions.figures.recorded import distributions, guaranteed, latency, local_time, loss_percent, point
from vorn_companions.words import printable

MOST_INTERVALS = 300
CDF_POINTS = [step / 4 for step in range(393)] + [98.1 + step / 10 for step in range(9)] + [
    99 + step / 100 for step in range(101)]  # percent


def with_breaks(series, history, value_of):
    """(times, values) at the middle of the intervals, broken where nothing was recorded for long."""
    times, values, before = [], [], None
    for interval in series.intervals:
        if before is not None and interval.start_usec - before > history.gap_usec:
            times.append(local_time(before + history.grid.width_usec))
            values.append(math.nan)
        value = value_of(interval)
        times.append(local_time(interval.start_usec + history.grid.width_usec / 2))
        values.append(math.nan if value is None else value)
        before = interval.start_usec
    return times, values


def draw_band(axis, series, history, colour, low, middle, high):
    """The band from one point to another around the line of a third; whatever stands alone is a dot or a stroke."""
    lines = [with_breaks(series, history, lambda interval, index=index: interval.points[index])
             for index in (low, middle, high)]
    times = lines[0][0]
    axis.fill_between(times, lines[0][1], lines[2][1], color=colour, alpha=0.2, linewidth=0)
    few = len(series.intervals) <= 60
    if few:
        known = [index for index, value in enumerate(lines[0][1]) if not math.isnan(value)]
        axis.vlines(*([part[index] for index in known] for part in (times, lines[0][1], lines[2][1])), color=colour,
                    alpha=0.35, linewidth=2)
    alone = lonely(lines[1][1])
    axis.plot(times, lines[1][1], color=colour, linewidth=1.3, marker="." if few else None, markersize=6)
    axis.plot([times[index] for index in alone], [lines[1][1][index] for index in alone], color=colour, marker=".",
              markersize=4, linestyle="none")


def lonely(values):
    """Indices of values without a neighbour, which a line would not show."""
    known = [False, *(not math.isnan(value) for value in values), False]
    return [index for index in range(len(values)) if known[index + 1] and not known[index] and not known[index + 2]]


def time_axis(axis, history, what):
    grid = history.grid
    date_axis(axis, local_time(grid.low_usec), local_time(grid.high_usec), what)
    if grid.high_usec > grid.low_usec:
        margin = max((grid.high_usec - grid.low_usec) * 0.01, grid.width_usec)
        axis.set_xlim(local_time(grid.low_usec - margin), local_time(grid.high_usec + margin))


def interval_name(history):
    single = all(each.counted + each.missing == 1 for series in history.series for each in series.intervals)
    return "time" if single else f"intervals of {duration(history.grid.width_usec)}"


def scale_times(axis, history):
    """Logarithmic when the medians span much, otherwise from 0; a few stray intervals do not flatten the rest."""
    highs = [(interval, interval.points[2]) for series in history.series for interval in series.intervals
             if interval.counted]
    if not highs:
        note(axis, "no answer")
        return
    medians = [interval.points[1] for interval, _ in highs]
    if min(medians) > 0 and max(medians) > 20 * min(medians):
        axis.set_yscale("log")
        log_ticks(axis.yaxis)
        return
    values = [value for _, value in highs]
    end = scale_end(values)
    if end is None:
        axis.set_ylim(0, max(1.08 * max(values), 0.001))
    else:
        middles = [local_time(interval.start_usec + history.grid.width_usec / 2) for interval, _ in highs]
        mark_outside(axis, middles, values, end, "ms", "dimgray")


def mark_outages(axis, series, history, colour):
    """From the first lost request to the next answer; never too thin to see."""
    least = (history.grid.high_usec - history.grid.low_usec) / 600
    for outage in series.outages:
        extra = max(0, least - (outage.end_usec - outage.begin_usec)) / 2
        axis.axvspan(local_time(outage.begin_usec - extra), local_time(outage.end_usec + extra), color=colour,
                     alpha=0.3, linewidth=0)


def draw_latency(paths, args):
    from matplotlib.patches import Patch
    history = latency(paths, args, MOST_INTERVALS)
    figure, (times, losses) = new_figure(args.title or "Latency over time", 7, 2, [3, 1.2])
    alone = len(history.series) == 1
    for colour, series in zip(line_colours(len(history.series)), history.series):
        draw_band(times, series, history, colour, 0, 1, 2)
        losses.plot(*with_breaks(series, history, lambda each: loss_percent(each.counted, each.missing)), color=colour,
                    linewidth=1, drawstyle="steps-mid" if len(series.intervals) > 1 else "default",
                    marker="." if len(series.intervals) <= 60 else None, clip_on=False)
        for axis in (times, losses):
            mark_outages(axis, series, history, BAD_COLOUR if alone else colour)
    scale_times(times, history)
    times.set_ylabel("round-trip time, ms:\nmedian and 5 to 95 %")
    losses.set_ylabel("lost, %")
    losses.set_ylim(0, max(1, losses.get_ylim()[1]))
    time_axis(losses, history, interval_name(history))
    labels = [f"{printable(each.label)}: {each.counted + each.missing} requests, "
              f"{loss_percent(each.counted, each.missing):.3g} % lost" for each in history.series]
    outages = sum(len(series.outages) for series in history.series)
    mark = Patch(color=BAD_COLOUR if alone else "dimgray", alpha=0.3, linewidth=0, label=f"outage ({outages})")
    add_key(figure, times, labels, [mark] if outages else [])
    return figure


def draw_guaranteed(paths, args):
    history = guaranteed(paths, args, MOST_INTERVALS)
    figure, (rates, bad, lost) = new_figure(args.title or "Guaranteed rate over time", 8, 3, [3, 1, 1])
    for colour, series in zip(line_colours(len(history.series)), history.series):
        draw_band(rates, series, history, colour, 3, 1, 0)
        thin = {"color": colour, "linewidth": 1, "marker": ".", "markersize": 4, "clip_on": False}
        bad.plot(*with_breaks(series, history, lambda each: each.missing), **thin)
        lost.plot(*with_breaks(series, history, lambda each: each.packets_lost), **thin)
    tops = [each.points[0] for series in history.series for each in series.intervals if each.counted]
    middles = [local_time(each.start_usec + history.grid.width_usec / 2) for series in history.series
               for each in series.intervals if each.counted]
    end = scale_end(tops)
    if not tops:
        note(rates, "no good batch")
    elif end is None:
        rates.set_ylim(0, max(1.08 * max(tops), 0.1))
    else:
        mark_outside(rates, middles, tops, end, "Mbit/s", "dimgray")
    rates.set_ylabel("rate, Mbit/s: median, and what\n99 % and 5 % of the batches reached")
    for axis, name in ((bad, "bad batches"), (lost, "packets lost")):
        axis.set_ylabel(name)
        axis.set_ylim(0, max(1, axis.get_ylim()[1]))
        whole_ticks(axis.yaxis, 4)
    time_axis(lost, history, interval_name(history))
    add_key(figure, rates, [f"{printable(each.label)}: {each.counted + each.missing} batches, {each.missing} bad"
                            for each in history.series])
    return figure


def draw_cdf(items, args):
    found = distributions(items, args)
    figure, (axis,) = new_figure(args.title or "Round trips", 6)
    lowest, highest = [], []
    for colour, each in zip(line_colours(len(found)), found):
        if len(each.ordered):
            shares = [0, *CDF_POINTS]
            times = [point(each.ordered, 0), *(point(each.ordered, share) for share in CDF_POINTS)]
            axis.plot(times, shares, color=colour, linewidth=1.6, drawstyle="steps-post",
                      marker="." if times[0] == times[-1] else None)
            lowest.append(times[0])
            highest.append(times[-1])
    if not highest:
        note(axis, "no answer")
        axis.set_xticks([])
    elif min(lowest) > 0 and max(highest) > 20 * min(lowest):
        axis.set_xscale("log")
        log_ticks(axis.xaxis)
    else:
        axis.set_xlim(0, max(1.05 * max(highest), 0.001))
    axis.set_ylim(0, 101)
    axis.set_xlabel("round-trip time, ms")
    axis.set_ylabel("answers that took no longer, %")
    add_key(figure, axis, [f"{printable(each.label)}: {len(each.ordered)} answers, "
                           f"{loss_percent(len(each.ordered), each.lost):.3g} % lost" for each in found])
    return figure
