# SPDX-License-Identifier: MIT
"""Pictures of results and histogram files."""

import itertools
import math

from vorn_companions.figures.canvas import (add_key, date_axis, legend_text, line_colours, new_figure, note, outside_note, whole_ticks)
from vorn_companions.figures.computed import (bin_width, has_rate, histograms, joined_bins, rate_at, rate_lines, rows_by_tag,
                              scale_end, used_bins)

SHOWN_BINS = 200  # narrower bars than this many fade away


def stretch_shares(axis):
    """A share axis on which 99 to 99.9 % takes as much room as 90 to 99 %; 100 % stays within reach."""
    import numpy
    end = 100.05
    axis.set_yscale("function", functions=(lambda share: -numpy.log10(end - numpy.minimum(share, 100.04)),
                                           lambda place: end - 10.0 ** -numpy.asarray(place)))
    axis.set_ylim(0, 100, auto=False)
    ticks = (0, 50, 75, 90, 95, 98, 99, 99.5, 99.8, 99.9, 100)
    axis.set_yticks(ticks, labels=[f"{tick:g} %" for tick in ticks])


def show_usual_rates(axis, points):
    """Ends the scale where the fastest batches would flatten the lines of all others."""
    usual = max((high for share, _, _, high in points if share >= 2), default=0)
    best = max((high for _, _, _, high in points), default=0)
    if usual > 0 and best > 3 * usual:
        axis.set_xlim(right=1.25 * usual)
        outside_note(axis, f"the fastest 2 % lie beyond the scale, up to {best:g} Mbit/s")


def draw_rate(rows, args):
    lines = rate_lines(rows, args.by)
    figure, (axis,) = new_figure(args.title or "Guaranteed rate", 6)
    stretch_shares(axis)
    for colour, line in zip(line_colours(len(lines)), lines.values()):
        if line:
            shares, lows, medians, highs = zip(*line)
            tail = [index for index, share in enumerate(shares) if share >= 95]
            axis.plot(medians, shares, color=colour, linewidth=1.6, marker=".", markevery=tail, clip_on=False)
            if lows != highs:
                axis.fill_betweenx(shares, lows, highs, color=colour, alpha=0.15, linewidth=0)
    if not any(lines.values()):
        note(axis, "no rate: every column is 0.0")
        axis.set_xticks([])
    show_usual_rates(axis, [point for line in lines.values() for point in line])
    axis.set_xlabel("rate of the batch, Mbit/s")
    axis.set_ylabel("share of the good batches at this rate or above")
    add_key(figure, axis, [label if line else f"{label}: no rate" for label, line in lines.items()])
    return figure


def draw_histogram_lines(axis, counts_of, first, last):
    alone = len(counts_of) == 1
    width = bin_width(first, last, SHOWN_BINS)
    for colour, counts in zip(line_colours(len(counts_of)), counts_of.values()):
        edges, joined = joined_bins(counts, first, last, width)
        axis.stairs(joined, edges, color=colour, linewidth=1.5, fill=alone, alpha=0.8 if alone else 1)
    axis.set_ylim(bottom=0)
    axis.set_ylabel(f"good batches per {width} Mbit/s")
    whole_ticks(axis.yaxis)


def draw_histogram_map(figure, axis, counts_of, first, last):
    """Too many histograms to tell outlines apart: a row a test, the colour is the share of its batches."""
    width = bin_width(first, last, SHOWN_BINS)
    shares = []
    for counts in counts_of.values():
        edges, joined = joined_bins(counts, first, last, width)
        shares.append([100 * count / sum(counts) if count else math.nan for count in joined])
    axis.grid(False)
    mesh = axis.pcolormesh(edges, range(len(shares) + 1), shares, cmap="viridis_r", vmin=0)
    figure.colorbar(mesh, ax=axis, label=f"share of the test's good batches per {width} Mbit/s, %")
    every = math.ceil(len(shares) / 80)
    axis.set_yticks([index + 0.5 for index in range(0, len(shares), every)],
                    labels=[legend_text(label) for label in list(counts_of)[::every]], fontsize="x-small")
    axis.invert_yaxis()


def draw_histogram(rows, args):
    counts_of = histograms(rows, args.by)
    many = len(counts_of) > 6
    figure, (axis,) = new_figure(args.title or "Rates of the good batches",
                                 min(14, 2.5 + 0.2 * len(counts_of)) if many else 5)
    axis.set_xlabel("rate of the batch, Mbit/s")
    used = used_bins(counts_of)
    if used is None:
        note(axis, "no good batch")
        axis.set_xticks([])
        return figure
    first, last = used
    batches = [sum(column) for column in itertools.zip_longest(*counts_of.values(), fillvalue=0)]
    end = scale_end([index - 1 for index, count in enumerate(batches) for _ in range(count)])
    if end is not None:
        outside_note(axis, f"{sum(batches[int(end) + 2:])} batches beyond the scale, up to {last} Mbit/s")
        last = int(end) + 1
    if many:
        draw_histogram_map(figure, axis, counts_of, first, last)
    else:
        draw_histogram_lines(axis, counts_of, first, last)
        add_key(figure, axis, [f"{label}: {sum(counts)} batches" for label, counts in counts_of.items()])
    margin = max(1, (last - first) // 20)
    axis.set_xlim(min(first - 1, max(0, first - 1 - margin)), last + margin)
    if last - first < 10:
        whole_ticks(axis.xaxis)
    return figure


def draw_trend_tag(rate_axis, bad_axis, lost_axis, rows, colour):
    dates = [row.date for row in rows]
    low, median, high = ([rate_at(row, share) if has_rate(row) else None for row in rows]
                         for share in (95.0, 50.0, 5.0))
    known = [index for index, rate in enumerate(low) if rate is not None]
    rate_axis.vlines([dates[index] for index in known], [low[index] for index in known],
                     [high[index] for index in known], color=colour, alpha=0.35, linewidth=2)
    low, median, high = ([math.nan if rate is None else rate for rate in rates] for rates in (low, median, high))
    rate_axis.fill_between(dates, low, high, color=colour, alpha=0.15, linewidth=0)
    rate_axis.plot(dates, median, color=colour, marker="o", markersize=4)
    thin = {"color": colour, "linewidth": 1, "clip_on": False}
    bad_axis.plot(dates, [row.bad_samples for row in rows], marker="o", markersize=4, **thin)
    lost_axis.plot(dates, [row.lost for row in rows], marker="o", markersize=4, **thin)
    lost_axis.plot(dates, [row.lost_in_bad for row in rows], marker="x", markersize=5, linestyle="--", **thin)


def draw_trend(rows, args):
    from matplotlib.lines import Line2D
    rows = sorted(rows, key=lambda row: row.date)
    groups = rows_by_tag(rows)
    figure, axes = new_figure(args.title or "Trend", 8, 3, [3, 1, 1.3])
    rate_axis, bad_axis, lost_axis = axes
    for colour, group in zip(line_colours(len(groups)), groups.values()):
        draw_trend_tag(*axes, group, colour)
    if not any(has_rate(row) for row in rows):
        note(rate_axis, "no rate: every column is 0.0")
    rate_axis.set_ylabel("Mbit/s: median and\n5 to 95 % of the batches")
    bad_axis.set_ylabel("bad samples")
    lost_axis.set_ylabel("packets lost")
    for axis in (bad_axis, lost_axis):
        axis.set_ylim(0, max(1, axis.get_ylim()[1]))
        whole_ticks(axis.yaxis, 5)
    date_axis(lost_axis, rows[0].date, rows[-1].date, "end of the test")
    styles = [Line2D([], [], color="dimgray", marker="o", markersize=4, label="in good batches"),
              Line2D([], [], color="dimgray", marker="x", markersize=5, linestyle="--", label="in bad samples")]
    lost_axis.legend(handles=styles, loc="upper left", bbox_to_anchor=(1.01, 1), borderaxespad=0, fontsize="small")
    add_key(figure, rate_axis, list(groups))
    return figure


