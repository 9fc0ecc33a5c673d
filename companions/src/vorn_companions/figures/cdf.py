# SPDX-License-Identifier: MIT
"""CDF: the share of the answers that took no longer than a round trip, of several runs, hosts or labels."""

import re
from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy

from vorn_companions.figures import canvas
from vorn_companions.figures.batches import run_labels
from vorn_companions.figures.echo import round_trips, timeouts
from vorn_companions.figures.history import lines_of, table_of
from vorn_companions.figures.numbers import Floats, loss_percent, percentile, percentiles
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet, width_of
from vorn_companions.figures.units import Unit, unit_of
from vorn_companions.read.records import Sources
from vorn_companions.words import printable

PERCENTS = (0, 5, 50, 90, 95, 99, 99.9, 100)
# Of the curve: each further nine has as many points as the one before.
CURVE = [0.0, *(100 * (1 - 10 ** (-step / 80)) for step in range(1, 401)), 100.0]
TICKS = (0, 50, 90, 99, 99.9, 99.99, 100)


class Distribution(NamedTuple):
    label: str
    times: Floats  # ms, in order
    lost: int

    @property
    def loss(self) -> float:
        return loss_percent(len(self.times) + self.lost, self.lost)


def natural(name: str) -> list[tuple[int, int, str]]:
    """A key that puts host2 before host10, and addresses in their order."""
    return [(0, int(part), "") if part.isdecimal() else (1, 0, part) for part in re.split(r"(\d+)", name) if part]


def compute(sources: Sources, options: Options) -> list[Distribution]:
    """Of records in the order of their labels, of saved output in that of the runs."""
    if not sources.stores:
        return [Distribution(label, numpy.sort(numpy.asarray(round_trips(run.requests), float)),
                             len(timeouts(run.requests)))
                for label, run in zip(run_labels(sources.echoes), sources.echoes)]
    table = table_of(sources.stores, options, batches=False)
    found = []
    for label, own in lines_of(table):
        values = table.value[own]
        counted = values[values >= 0]
        found.append(Distribution(label, numpy.sort(counted) / 1000, len(values) - len(counted)))
    return sorted(found, key=lambda each: natural(each.label))


def shown_unit(found: Sequence[Distribution]) -> Unit:
    return unit_of(percentile(each.times, 95) for each in found)


def text(sources: Sources, options: Options) -> list[Block]:
    found = compute(sources, options)
    unit = shown_unit(found)
    rows = [[printable(each.label), str(len(each.times)), f"{each.loss:.2f}",
             *map(unit.cell, percentiles(each.times, PERCENTS))] for each in found]
    return [f"Round trips: {unit.name} that this share of the answers did not exceed",
            Sheet([("", -width_of(row[0] for row in rows)), ("answers", 10), ("lost %", 8),
                   *((f"{percent:g} %", 10) for percent in PERCENTS)], rows)]


def draw(sources: Sources, options: Options) -> Any:
    found = compute(sources, options)
    unit = shown_unit(found)
    figure, (axis,) = canvas.new_figure(options.title or "Round trips", 6)
    canvas.stretch_shares(axis, 100.001, TICKS)
    ends: list[float] = []
    for colour, each in zip(canvas.line_colours(len(found)), found):
        if len(each.times):
            places = [point * unit.factor for point in percentiles(each.times, CURVE) if point is not None]
            axis.plot([places[0], *places], [0, *CURVE], color=colour, linewidth=1.6, drawstyle="steps-post",
                      marker="." if places[0] == places[-1] else None, markevery=[0, -1], clip_on=False)
            ends += [places[0], places[-1]]
    if not ends:
        canvas.note(axis, "no answer")
        axis.set_xticks([])
    canvas.time_scale(axis, "x", ends, 1.05)
    axis.set_xlabel(f"round-trip time, {unit.name}")
    axis.set_ylabel("answers that took no longer")
    canvas.add_key(figure, axis, [f"{printable(each.label)}: {len(each.times)} answers, {each.loss:.3g} % lost"
                                  for each in found])
    return figure
