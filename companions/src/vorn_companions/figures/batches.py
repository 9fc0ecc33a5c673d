# SPDX-License-Identifier: MIT
"""Batches: rate and buffer consumption of a saved command-mode run, batch by batch."""

import math
import os
from collections.abc import Callable, Sequence
from typing import Any, TypeVar

from vorn_companions.figures import canvas
from vorn_companions.figures.canvas import BAD_COLOUR
from vorn_companions.figures.numbers import Values, percentiles, scale_end
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet, cell
from vorn_companions.figures.units import Unit
from vorn_companions.read.records import Batch, EchoRun, Sources, StreamRun

TEXT_GROUPS = 20
SPREAD = (0, 5, 50, 95, 99, 100)
SPREAD_NAMES = ("min", "p5", "p50", "p95", "p99", "max")

Item = TypeVar("Item")
ValueOf = Callable[[Batch], float | None]


def rate_of(batch: Batch) -> float | None:
    return batch.rate


def buffer_of(batch: Batch) -> float | None:
    return batch.buffer


def good(batches: Sequence[Batch], value_of: ValueOf) -> list[float]:
    values = (value_of(batch) for batch in batches if not batch.bad)
    return [value for value in values if value is not None]


def run_labels(runs: Sequence[StreamRun] | Sequence[EchoRun]) -> list[str]:
    """The labels of the runs, with the whole path where two files share a name."""
    labels = [run.label for run in runs]
    return [run.path + run.label[len(os.path.basename(run.path)):] if labels.count(run.label) > 1 else run.label
            for run in runs]


# --- text ---

def in_groups(items: Sequence[Item]) -> list[Sequence[Item]]:
    size = max(1, math.ceil(len(items) / TEXT_GROUPS))
    return [items[start:start + size] for start in range(0, len(items), size)]


def spread_sheet(rows: Sequence[tuple[str, Values, Unit | int]]) -> Sheet:
    """A line of percentiles a row: (name, values, their unit or decimals)."""
    table = [[name, *(unit.cell(point) if isinstance(unit, Unit) else cell(point, unit)
                      for point in percentiles(values, SPREAD))] for name, values, unit in rows]
    return Sheet([("", -24), *((name, 10) for name in SPREAD_NAMES)], table, "  ")


def group_sheet(batches: Sequence[Batch]) -> Sheet:
    top = max(good(batches, rate_of), default=0)
    table, bars = [], []
    for group in in_groups(batches):
        rates = good(group, rate_of)
        low, middle, high = percentiles(rates, (0, 50, 100))
        table.append([f"{group[0].number:6} to {group[-1].number:5}", cell(low), cell(middle), cell(high),
                      cell(max(good(group, buffer_of), default=None)), str(sum(batch.bad for batch in group))])
        bars.append(middle / top if middle is not None and top > 0 else 0)
    return Sheet([("batches", 15), ("low", 9), ("median", 9), ("high Mbit/s", 13), ("buffer ms", 11), ("bad", 6)],
                 table, "  ", bars)


def text(sources: Sources, _options: Options) -> list[Block]:
    blocks: list[Block] = ["Rate and buffer consumption, batch by batch"]
    for label, run in zip(run_labels(sources.streams), sources.streams):
        lost = [batch.size - batch.received for batch in run.batches if not batch.bad]
        lost_in_bad = [batch.size - batch.received for batch in run.batches if batch.bad]
        blocks += ["", f"{label}: {len(run.batches)} batches, {len(lost_in_bad)} bad; {sum(lost)} packets lost in "
                   f"good ones, {sum(lost_in_bad)} in bad ones",
                   spread_sheet([("rate, Mbit/s", good(run.batches, rate_of), 1),
                                 ("buffer, ms", good(run.batches, buffer_of), 1)]),
                   group_sheet(run.batches)]
    return blocks


# --- picture ---

def draw_run(axes: Sequence[Any], run: StreamRun, colour: Any) -> None:
    raster = len(run.batches) > canvas.RASTER_POINTS
    numbers = [batch.number for batch in run.batches]
    for axis, value_of in zip(axes, (rate_of, buffer_of)):
        values = [value_of(batch) for batch in run.batches]
        shown = [math.nan if batch.bad or value is None else value for batch, value in zip(run.batches, values)]
        axis.plot(numbers, shown, color=colour, marker=".", markersize=4, linewidth=0.7, rasterized=raster)
        bad = [(batch.number, value) for batch, value in zip(run.batches, values) if batch.bad and value is not None]
        axis.plot([number for number, _ in bad], [value for _, value in bad], color=BAD_COLOUR, marker="x",
                  markersize=6, linestyle="none", rasterized=raster)
    empty = [batch.number for batch in run.batches if batch.rate is None]
    axes[0].plot(empty, [0.02] * len(empty), color=BAD_COLOUR, marker="^", markersize=6, linestyle="none",
                 transform=axes[0].get_xaxis_transform())


def scale(axis: Any, batches: Sequence[Batch], value_of: ValueOf, unit: str) -> None:
    """From 0 up to what most batches need; stray ones are marked at the edge."""
    shown = [(batch.number, value) for batch in batches if (value := value_of(batch)) is not None]
    values = [value for _, value in shown]
    end = scale_end(values)
    if end is None:
        axis.set_ylim(0, max([0.1, *(1.08 * value for value in values)]))
    else:
        canvas.mark_outside(axis, [number for number, _ in shown], values, end, unit, BAD_COLOUR)


def draw(sources: Sources, options: Options) -> Any:
    runs = sources.streams
    together = [batch for run in runs for batch in run.batches]
    figure, axes = canvas.new_figure(options.title or "Rate and buffer consumption by batch", 7, 2, [3, 2])
    for colour, run in zip(canvas.line_colours(len(runs)), runs):
        draw_run(axes, run, colour)
    rate_axis, buffer_axis = axes
    scale(rate_axis, together, rate_of, "Mbit/s")
    scale(buffer_axis, together, buffer_of, "ms")
    rate_axis.set_ylabel("rate, Mbit/s")
    buffer_axis.set_ylabel("buffer consumption, ms")
    buffer_axis.set_xlabel("batch")
    canvas.number_axis(buffer_axis, {batch.number for batch in together})
    empty = any(batch.rate is None for batch in together)
    if all(batch.rate is None for batch in together):
        canvas.note(rate_axis, "no batch with a rate")
        canvas.note(buffer_axis, "no batch with a buffer consumption")
    marks = [canvas.key_mark("bad batch", "x", color=BAD_COLOUR)] * any(
        batch.bad and batch.rate is not None for batch in together)
    marks += [canvas.key_mark("one packet or none", "^", color=BAD_COLOUR)] * empty
    labels = [f"{label}: {len(run.batches)} batches, {sum(batch.bad for batch in run.batches)} bad"
              for label, run in zip(run_labels(runs), runs)]
    canvas.add_key(figure, rate_axis, labels, marks)
    return figure
