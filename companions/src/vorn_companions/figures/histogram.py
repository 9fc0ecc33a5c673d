# SPDX-License-Identifier: MIT
"""Histogram: how many good batches of a test came at which rate, in bins of 1 Mbit/s or round multiples of it."""

import itertools
import math
from collections.abc import Sequence
from typing import Any

import numpy

from vorn_companions.figures import canvas
from vorn_companions.figures.numbers import scale_end, shares_of_largest
from vorn_companions.figures.options import Options
from vorn_companions.figures.rows import row_labels, rows_by_tag
from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.read.records import Sources, TestRow

TEXT_BINS = 20
SHOWN_BINS = 200  # narrower bars than this many fade away
MOST_OUTLINES = 6  # more histograms are a row each

Counts = dict[str, list[int]]  # counts[i]: batches from i - 1 up to i Mbit/s


def counts_of(rows: Sequence[TestRow], by: str | None) -> Counts:
    """By label; tests of one tag are added."""
    if by != "tag":
        return {label: list(map(int, row.values)) for label, row in zip(row_labels(rows), rows)}
    return {tag: [round(sum(column)) for column in itertools.zip_longest(*(row.values for row in group), fillvalue=0)]
            for tag, group in rows_by_tag(rows).items()}


def used_bins(counts: Counts) -> tuple[int, int] | None:
    """The first and the last index of a bin that any of the histograms fills; None when all are empty."""
    used = [index for each in counts.values() for index, count in enumerate(each) if count]
    return (min(used), max(used)) if used else None


def bin_width(first: int, last: int, most: int) -> int:
    """Mbit/s: the round width with which the bins first to last become about `most` at the outside."""
    widths = (step * 10 ** power for power in itertools.count() for step in (1, 2, 5))
    return next(int(width) for width in widths if last - first < most * width)


def joined_bins(counts: Sequence[int], first: int, last: int, width: int) -> tuple[list[int], list[int]]:
    """(edges, counts) in Mbit/s of the bins first to last, `width` of them joined to one, from a multiple of it."""
    start = first - 1 - (first - 1) % width
    lows = range(start, last, width)
    return [*lows, lows[-1] + width], [sum(counts[max(0, low + 1):low + 1 + width]) for low in lows]


def text(sources: Sources, options: Options) -> list[Block]:
    blocks: list[Block] = ["Histogram: good batches by their rate"]
    for label, counts in counts_of(sources.histograms, options.by).items():
        blocks += ["", f"{label}: {sum(counts)} good batches"]
        used = used_bins({label: counts})
        if used:
            edges, joined = joined_bins(counts, *used, bin_width(*used, TEXT_BINS))
            table = [[f"{low:7} to {high:5} Mbit/s", str(count)] for low, high, count in zip(edges, edges[1:], joined)]
            blocks.append(Sheet([("rate", -23), ("batches", 9)], table, bars=shares_of_largest(joined), heading=False))
    return blocks


def draw_outlines(axis: Any, counts: Counts, first: int, last: int) -> None:
    alone = len(counts) == 1
    width = bin_width(first, last, SHOWN_BINS)
    for colour, each in zip(canvas.line_colours(len(counts)), counts.values()):
        edges, joined = joined_bins(each, first, last, width)
        axis.stairs(joined, edges, color=colour, linewidth=1.5, fill=alone, alpha=0.8 if alone else 1)
    axis.set_ylim(bottom=0)
    axis.set_ylabel(f"good batches per {width} Mbit/s")
    canvas.whole_ticks(axis.yaxis)


def draw_map(figure: Any, axis: Any, counts: Counts, first: int, last: int) -> None:
    """Too many histograms to tell outlines apart: a row a test, the colour is the share of its batches."""
    width = bin_width(first, last, SHOWN_BINS)
    edges: list[int] = []
    shares = []
    for each in counts.values():
        edges, joined = joined_bins(each, first, last, width)
        shares.append([100 * count / sum(each) if count else math.nan for count in joined])
    axis.grid(False)
    mesh = axis.pcolormesh(edges, range(len(shares) + 1), shares, cmap="viridis_r", vmin=0)
    figure.colorbar(mesh, ax=axis, label=f"share of the test's good batches per {width} Mbit/s, %")
    every = math.ceil(len(shares) / 80)
    axis.set_yticks([index + 0.5 for index in range(0, len(shares), every)],
                    labels=[canvas.legend_text(label, 44) for label in list(counts)[::every]], fontsize="x-small")
    axis.invert_yaxis()


def draw(sources: Sources, options: Options) -> Any:
    counts = counts_of(sources.histograms, options.by)
    many = len(counts) > MOST_OUTLINES
    figure, (axis,) = canvas.new_figure(options.title or "Rates of the good batches",
                                        min(14, 2.5 + 0.2 * len(counts)) if many else 5)
    axis.set_xlabel("rate of the batch, Mbit/s")
    used = used_bins(counts)
    if used is None:
        canvas.note(axis, "no good batch")
        axis.set_xticks([])
        return figure
    first, last = used
    together = [sum(column) for column in itertools.zip_longest(*counts.values(), fillvalue=0)]
    end = scale_end(numpy.repeat(numpy.arange(len(together)) - 1.0, together))
    if end is not None:
        canvas.outside_note(axis, f"{sum(together[int(end) + 2:])} batches beyond the scale, up to {last} Mbit/s")
        last = int(end) + 1
    if many:
        draw_map(figure, axis, counts, first, last)
    else:
        draw_outlines(axis, counts, first, last)
        canvas.add_key(figure, axis, [f"{label}: {sum(each)} batches" for label, each in counts.items()])
    margin = max(1, (last - first) // 20)
    axis.set_xlim(min(first - 1, max(0, first - 1 - margin)), last + margin)
    if last - first < 10:
        canvas.whole_ticks(axis.xaxis)
    return figure
