# SPDX-License-Identifier: MIT
"""Echo: the round trips of a saved echo-mode run, request by request, and their distribution."""

import itertools
import math
from collections.abc import Callable, Sequence
from typing import Any, NamedTuple

from vorn_companions.figures import canvas, hosts
from vorn_companions.figures.batches import in_groups, run_labels, spread_sheet
from vorn_companions.figures.canvas import BAD_COLOUR, PALETTE
from vorn_companions.figures.numbers import (Floats, bin_counts, edges_over, percentile, percentiles,
                                             shares_of_largest)
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.figures.units import Unit, unit_of
from vorn_companions.read.records import REPLY, EchoRun, Request, Sources

TEXT_BINS = 20
PICTURE_BINS = 60
PERCENT_STYLES = {50: "-", 95: "--", 99: ":"}
MOST_REQUESTS = 3000  # more than this many dots run into each other
MOST_GROUPS = 400
MOST_HOST_ROWS = 60  # lines of host names that a picture holds


def round_trips(requests: Sequence[Request]) -> list[float]:
    """ms"""
    return [rtt for request in requests if (rtt := request.rtt) is not None]


def timeouts(requests: Sequence[Request]) -> list[int]:
    return [request.sequence for request in requests if not request.answer]


def errors(requests: Sequence[Request]) -> list[tuple[int, float]]:
    return [(request.sequence, request.rtt) for request in requests
            if request.answer not in ("", REPLY) and request.rtt is not None]


def shown_unit(runs: Sequence[EchoRun]) -> Unit:
    """That of all but stray round trips."""
    return unit_of([percentile([rtt for run in runs for rtt in round_trips(run.requests)], 95)])


# --- text ---

def counts_text(run: EchoRun) -> str:
    hidden = run.sent - len(run.requests)
    return f"{run.sent} sent, {len(round_trips(run.requests))} answers, {len(timeouts(run.requests))} time-outs" + (
        f", {hidden} without a line" if hidden > 0 else "")


def group_sheet(requests: Sequence[Request], unit: Unit) -> Sheet:
    table = [[f"{group[0].sequence:6} to {group[-1].sequence:5}",
              *map(unit.cell, percentiles(round_trips(group), (0, 50, 100))), str(len(timeouts(group)))]
             for group in in_groups(requests)]
    return Sheet([("requests", 15), ("low", 10), ("median", 10), (f"high {unit.name}", 10), ("time-outs", 11)], table,
                 "  ")


def distribution_sheet(times: Sequence[float], unit: Unit) -> Sheet:
    edges = edges_over(times, TEXT_BINS)
    counts = bin_counts(times, edges)
    table = [[f"{unit.cell(low):>9} to {unit.cell(high):>9} {unit.name}", str(count)]
             for low, high, count in zip(edges, edges[1:], counts)]
    return Sheet([("round trip", 23 + len(unit.name)), ("answers", 9)], table, "  ", shares_of_largest(counts),
                 heading=False)


def text(sources: Sources, _options: Options) -> list[Block]:
    blocks: list[Block] = ["Round-trip time"]
    unit = shown_unit(sources.echoes)
    for label, run in zip(run_labels(sources.echoes), sources.echoes):
        times = round_trips(run.requests)
        blocks += ["", f"{label}: {counts_text(run)}", spread_sheet([(f"round trip, {unit.name}", times, unit)]),
                   group_sheet(run.requests, unit)]
        if times:
            blocks += ["  distribution", distribution_sheet(times, unit)]
        if hosts.names_hosts(run):
            blocks += ["  hosts", hosts.host_sheet(run, unit)]
    return blocks


# --- picture ---

def with_gaps(requests: Sequence[Request], unit: Unit) -> tuple[list[int], list[float]]:
    """(sequences, times) of a line that breaks at time-outs and at requests without a line of their own."""
    sequences: list[int] = []
    times: list[float] = []
    for request in requests:
        if sequences and request.sequence != sequences[-1] + 1:
            sequences.append(sequences[-1] + 1)
            times.append(math.nan)
        sequences.append(request.sequence)
        times.append(math.nan if request.rtt is None else request.rtt * unit.factor)
    return sequences, times


class Band(NamedTuple):
    """Requests of as many numbers."""

    first: int
    last: int
    times: list[float]  # ms
    lost: bool
    errors: list[tuple[int, float]]


def bands(requests: Sequence[Request], most: int) -> list[Band]:
    low, high = requests[0].sequence, requests[-1].sequence
    width = max(1, math.ceil((high - low + 1) / most))
    found = []
    for index, group in itertools.groupby(requests, lambda request: (request.sequence - low) // width):
        own = list(group)
        found.append(Band(low + index * width, low + (index + 1) * width - 1, round_trips(own), bool(timeouts(own)),
                          errors(own)))
    return found


def mark_timeouts(axis: Any, places: Sequence[float]) -> None:
    axis.plot(places, [0.02] * len(places), color=BAD_COLOUR, marker="|", markersize=9, linestyle="none",
              transform=axis.get_xaxis_transform())


def mark_errors(axis: Any, found: Sequence[tuple[int, float]], unit: Unit, colour: Any) -> None:
    axis.plot([place for place, _ in found], [time * unit.factor for _, time in found], color=colour, marker="D",
              markersize=5, linestyle="none", markerfacecolor="white")


def draw_requests(axis: Any, requests: Sequence[Request], unit: Unit, colour: Any) -> None:
    """Each request as a dot."""
    axis.plot(*with_gaps(requests, unit), color=colour, marker=".", markersize=4 if len(requests) > 100 else 8,
              linewidth=0.7)
    mark_errors(axis, errors(requests), unit, colour)
    mark_timeouts(axis, timeouts(requests))


def draw_bands(axis: Any, requests: Sequence[Request], unit: Unit, colour: Any) -> None:
    """Too many requests to tell apart: the median of each group, from the lowest to the highest, from 5 to 95 %."""
    groups = bands(requests, MOST_GROUPS)
    points = [[math.nan if point is None else point * unit.factor
               for point in percentiles(group.times, (0, 5, 50, 95, 100))] for group in groups]
    places = [group.first for group in groups] + [groups[-1].last + 1]

    def steps(index: int) -> list[float]:
        values = [point[index] for point in points]
        return values + values[-1:]

    for low, high, alpha in ((0, 4, 0.15), (1, 3, 0.35)):
        axis.fill_between(places, steps(low), steps(high), step="post", color=colour, alpha=alpha, linewidth=0)
    axis.plot(places, steps(2), drawstyle="steps-post", color=colour, linewidth=1)
    mark_errors(axis, [(group.first, group.errors[0][1]) for group in groups if group.errors], unit, colour)
    mark_timeouts(axis, [(group.first + group.last) / 2 for group in groups if group.lost])


def draw_spread(axis: Any, times: Sequence[float], edges: Floats, unit: Unit, colour: Any) -> None:
    axis.stairs(bin_counts(times, edges), edges * unit.factor, color=colour, linewidth=1.5, fill=True, alpha=0.35)
    for style, point in zip(PERCENT_STYLES.values(), percentiles(times, list(PERCENT_STYLES))):
        axis.axvline(unit.of(point), color=colour, linestyle=style, linewidth=1.2)


def answer_marks(runs: Sequence[EchoRun]) -> list[Any]:
    marks = []
    if any(timeouts(run.requests) for run in runs):
        marks.append(canvas.key_mark("time-out", "|", color=BAD_COLOUR, markersize=9))
    kinds = sorted({request.answer for run in runs for request in run.requests} - {"", REPLY})
    if kinds:
        marks.append(canvas.key_mark("\n".join(kinds), "D", color="dimgray", markersize=5, markerfacecolor="white"))
    return marks


def percent_marks(runs: Sequence[EchoRun], unit: Unit) -> list[Any]:
    """Legend lines with the figures themselves; with several runs a line of figures a run."""
    alone = len(runs) == 1
    points_of = [[unit.cell(point) for point in percentiles(round_trips(run.requests), list(PERCENT_STYLES))]
                 for run in runs]
    marks = [canvas.key_line(f"p{percent} {point} {unit.name}" if alone else f"p{percent}", linestyle=style,
                             color=PALETTE[0] if alone else "dimgray")
             for (percent, style), point in zip(PERCENT_STYLES.items(), points_of[0])]
    if 1 < len(runs) <= len(PALETTE):
        marks += [canvas.key_line(f"{' / '.join(points)} {unit.name}", color=colour, linewidth=4)
                  for colour, points, run in zip(PALETTE, points_of, runs) if round_trips(run.requests)]
    return marks


def draw_runs(runs: Sequence[EchoRun], labels: Sequence[str], title: str, unit: Unit) -> Any:
    figure, (time_axis, spread_axis) = canvas.new_figure(title, 8, 2, [3, 2], sharex=False)
    together = [rtt for run in runs for rtt in round_trips(run.requests)]
    edges = edges_over(together, PICTURE_BINS) if together else None
    banded = False
    for colour, run in zip(canvas.line_colours(len(runs)), runs):
        many = len(run.requests) > MOST_REQUESTS
        banded |= many
        draw_run: Callable[..., None] = draw_bands if many else draw_requests
        draw_run(time_axis, run.requests, unit, colour)
        if edges is not None and round_trips(run.requests):
            draw_spread(spread_axis, round_trips(run.requests), edges, unit, colour)
    if together:
        canvas.legend_beside(spread_axis, percent_marks(runs, unit))
        canvas.time_scale(time_axis, "y", [time * unit.factor for time in together])
        if time_axis.get_yscale() == "log":
            spread_axis.set_xscale("log")
            canvas.log_ticks(spread_axis.xaxis)
    else:
        canvas.note(time_axis, "no answer")
        canvas.note(spread_axis, "no answer")
        spread_axis.set_xticks([])
    time_axis.set_xlabel("request (median, 5 to 95 %, lowest to highest of each group)" if banded else "request")
    canvas.number_axis(time_axis, {request.sequence for run in runs for request in run.requests})
    spread_axis.set_ylabel("answers")
    canvas.whole_ticks(spread_axis.yaxis)
    time_axis.set_ylabel(f"round-trip time, {unit.name}")
    spread_axis.set_xlabel(f"round-trip time, {unit.name}")
    canvas.add_key(figure, time_axis, labels, answer_marks(runs))
    return figure


def draw(sources: Sources, options: Options) -> Any:
    runs, unit = sources.echoes, shown_unit(sources.echoes)
    labels = [f"{label}: {len(round_trips(run.requests))} of {run.sent}" for label, run in zip(run_labels(runs), runs)]
    if all(hosts.names_hosts(run) for run in runs):
        rows_of = [hosts.host_rows(run) for run in runs]
        if sum(map(len, rows_of)) <= MOST_HOST_ROWS:
            return hosts.draw(options.title or "Round-trip time by host", labels, rows_of, unit)
    return draw_runs(runs, labels, options.title or "Round-trip time", unit)
