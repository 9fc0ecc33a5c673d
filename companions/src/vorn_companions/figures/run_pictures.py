# SPDX-License-Identifier: MIT
"""Pictures of saved output: batches and round trips."""

import math

from vorn_companions.figures.canvas import (BAD_COLOUR, PALETTE, add_key, legend_text, line_colours, log_ticks, new_figure, note,
                             mark_outside, whole_ticks)
from vorn_companions.figures.computed import (bands, bin_counts, host_rows, is_wide, names_hosts, percentile,
                              round_trips, rtt_edges, run_labels, scale_end, timeouts, with_gaps)
from vorn_companions.read.files import position
from vorn_companions.read.records import REPLY

PERCENT_STYLES = {50: "-", 95: "--", 99: ":"}
RASTER_POINTS = 20000  # an SVG with more points than this takes minutes to open
MOST_REQUESTS = 3000  # more than this many dots run into each other
MOST_BANDS = 400
MOST_HOST_ROWS = 60  # lines of host names that a picture holds


def draw_run_batches(rate_axis, buffer_axis, run, colour):
    raster = len(run.items) > RASTER_POINTS
    for axis, value_of in ((rate_axis, lambda batch: batch.rate), (buffer_axis, lambda batch: batch.buffer)):
        numbers = [batch.number for batch in run.items]
        good = [math.nan if batch.bad or value_of(batch) is None else value_of(batch) for batch in run.items]
        axis.plot(numbers, good, color=colour, marker=".", markersize=4, linewidth=0.7, rasterized=raster)
        bad = [batch for batch in run.items if batch.bad and value_of(batch) is not None]
        axis.plot([batch.number for batch in bad], [value_of(batch) for batch in bad], color=BAD_COLOUR, marker="x",
                  markersize=6, linestyle="none", rasterized=raster)
    empty = [batch.number for batch in run.items if batch.rate is None]
    rate_axis.plot(empty, [0.02] * len(empty), color=BAD_COLOUR, marker="^", markersize=6, linestyle="none",
                   transform=rate_axis.get_xaxis_transform())


def number_axis(axis, runs):
    whole_ticks(axis.xaxis)
    numbers = {position(item) for run in runs for item in run.items}
    if len(numbers) == 1:
        axis.set_xticks(list(numbers))


def scale_batches(axis, runs, value_of, unit):
    """From 0 up to what most batches need; stray ones are marked at the edge."""
    shown = [(batch.number, value_of(batch)) for run in runs for batch in run.items if value_of(batch) is not None]
    numbers, values = zip(*shown) if shown else ((), ())
    end = scale_end(values)
    if end is None:
        axis.set_ylim(0, max([0.1, *(1.08 * value for value in values)]))
    else:
        mark_outside(axis, numbers, values, end, unit, BAD_COLOUR)


def draw_batches(runs, args):
    from matplotlib.lines import Line2D
    figure, axes = new_figure(args.title or "Rate and buffer consumption by batch", 7, 2, [3, 2])
    rate_axis, buffer_axis = axes
    for colour, run in zip(line_colours(len(runs)), runs):
        draw_run_batches(*axes, run, colour)
    scale_batches(rate_axis, runs, lambda batch: batch.rate, "Mbit/s")
    scale_batches(buffer_axis, runs, lambda batch: batch.buffer, "ms")
    rate_axis.set_ylabel("rate, Mbit/s")
    buffer_axis.set_ylabel("buffer consumption, ms")
    buffer_axis.set_xlabel("batch")
    number_axis(buffer_axis, runs)
    if all(batch.rate is None for run in runs for batch in run.items):
        note(rate_axis, "no batch with a rate")
        note(buffer_axis, "no batch with a buffer consumption")
    marks = []
    if any(batch.bad and batch.rate is not None for run in runs for batch in run.items):
        marks.append(Line2D([], [], color=BAD_COLOUR, marker="x", linestyle="none", label="bad batch"))
    if any(batch.rate is None for run in runs for batch in run.items):
        marks.append(Line2D([], [], color=BAD_COLOUR, marker="^", linestyle="none", label="one packet or none"))
    labels = [f"{label}: {len(run.items)} batches, {sum(batch.bad for batch in run.items)} bad"
              for label, run in zip(run_labels(runs), runs)]
    add_key(figure, rate_axis, labels, marks)
    return figure


def draw_run_echo(time_axis, spread_axis, run, colour, edges):
    draw = draw_requests if len(run.items) <= MOST_REQUESTS else draw_bands
    draw(time_axis, run, colour)
    ordered = round_trips(run)
    if ordered:
        spread_axis.stairs(bin_counts(ordered, edges), edges, color=colour, linewidth=1.5, fill=True, alpha=0.35)
        for percent, style in PERCENT_STYLES.items():
            spread_axis.axvline(percentile(ordered, percent), color=colour, linestyle=style, linewidth=1.2)


def mark_timeouts(axis, places):
    axis.plot(places, [0.02] * len(places), color=BAD_COLOUR, marker="|", markersize=9, linestyle="none",
              transform=axis.get_xaxis_transform())


def draw_requests(axis, run, colour):
    """Each request as a dot."""
    size = 4 if len(run.items) > 100 else 8
    axis.plot(*with_gaps(run.items), color=colour, marker=".", markersize=size, linewidth=0.7)
    errors = [request for request in run.items if request.answer not in ("", REPLY)]
    axis.plot([request.sequence for request in errors], [request.rtt for request in errors], color=colour,
              marker="D", markersize=5, linestyle="none", markerfacecolor="white")
    mark_timeouts(axis, timeouts(run))


def draw_bands(axis, run, colour):
    """Too many requests to tell apart: the median of each group, from the lowest to the highest, from 5 to 95 %."""
    groups = bands(run, MOST_BANDS)
    edges = [groups[0][0], *(last + 1 for _, last, _, _, _ in groups)]
    firsts = [first for first, _, _, _, _ in groups] + [edges[-1]]

    def steps(value_of):
        values = [value_of(times) if times else math.nan for _, _, times, _, _ in groups]
        return values + values[-1:]

    for low, high, alpha in ((0, 100, 0.15), (5, 95, 0.35)):
        axis.fill_between(firsts, steps(lambda times, p=low: percentile(times, p)),
                          steps(lambda times, p=high: percentile(times, p)), step="post", color=colour, alpha=alpha,
                          linewidth=0)
    axis.plot(firsts, steps(lambda times: percentile(times, 50)), drawstyle="steps-post", color=colour, linewidth=1)
    wrong = [(first, errors[0]) for first, _, _, _, errors in groups if errors]
    axis.plot([first for first, _ in wrong], [time for _, time in wrong], color=colour, marker="D", markersize=5,
              linestyle="none", markerfacecolor="white")
    mark_timeouts(axis, [(first + last) / 2 for first, last, _, lost, _ in groups if lost])


def echo_marks(runs):
    from matplotlib.lines import Line2D
    marks = []
    if any(timeouts(run) for run in runs):
        marks.append(Line2D([], [], color=BAD_COLOUR, marker="|", linestyle="none", markersize=9, label="time-out"))
    errors = sorted({request.answer for run in runs for request in run.items} - {"", REPLY})
    if errors:
        marks.append(Line2D([], [], color="dimgray", marker="D", markersize=5, linestyle="none",
                            markerfacecolor="white", label="\n".join(errors)))
    return marks


def percent_marks(runs):
    """Legend lines with the figures themselves; with several runs a line of figures a run."""
    from matplotlib.lines import Line2D
    if len(runs) == 1 and round_trips(runs[0]):
        return [Line2D([], [], color=PALETTE[0], linestyle=style,
                       label=f"p{percent} {percentile(round_trips(runs[0]), percent):.3f} ms")
                for percent, style in PERCENT_STYLES.items()]
    marks = [Line2D([], [], color="dimgray", linestyle=style, label=f"p{percent}")
             for percent, style in PERCENT_STYLES.items()]
    for colour, run in zip(line_colours(len(runs)), runs):
        if round_trips(run) and len(runs) <= len(PALETTE):
            figures = " / ".join(f"{percentile(round_trips(run), percent):.3f}" for percent in PERCENT_STYLES)
            marks.append(Line2D([], [], color=colour, linewidth=4, label=f"{figures} ms"))
    return marks


def host_label(row):
    requests = str(row.first) if row.first == row.last else f"{row.first} to {row.last}"
    return legend_text(f"{row.host or '?'}   {requests}")


def draw_run_hosts(axis, run, rows):
    """A line a host: its round trips, or why there is none."""
    for place, row in enumerate(rows):
        shape = {"marker": "o"} if row.answer == REPLY else {"marker": "D", "markerfacecolor": "white"}
        axis.plot(row.times, [place] * len(row.times), color=PALETTE[0], markersize=6, linestyle="none", **shape)
        if not row.times:
            axis.text(0.01, place, row.answer, transform=axis.get_yaxis_transform(), color=BAD_COLOUR, va="center",
                      fontsize="small")
    times = round_trips(run)
    if not times:
        axis.set_xticks([])
    elif is_wide(times):
        axis.set_xscale("log")
        log_ticks(axis.xaxis)
    else:
        axis.set_xlim(0, max(1.08 * times[-1], 0.001))
    axis.set_yticks(range(len(rows)), labels=[host_label(row) for row in rows], fontsize="small")
    axis.set_ylim(len(rows) - 0.5, -0.5)
    axis.set_ylabel("host   request")


def draw_hosts(runs, args, rows_of):
    """Sweeps and traces: who answered, when, and who did not."""
    from matplotlib.lines import Line2D
    heights = [len(rows) + 2 for rows in rows_of]
    figure, axes = new_figure(args.title or "Round-trip time by host", 1.5 + 0.28 * sum(heights), len(runs), heights,
                              sharex=False)
    for axis, label, run, rows in zip(axes, run_labels(runs), runs, rows_of):
        draw_run_hosts(axis, run, rows)
        axis.set_title(legend_text(f"{label}: {len(round_trips(run))} of {run.sent}"), loc="left", fontsize="medium")
    axes[-1].set_xlabel("round-trip time, ms")
    answers = sorted({row.answer for rows in rows_of for row in rows if row.times},
                     key=lambda answer: (answer != REPLY, answer))
    axes[0].legend(handles=[Line2D([], [], color=PALETTE[0], linestyle="none", marker="o" if answer == REPLY else "D",
                                   markerfacecolor=PALETTE[0] if answer == REPLY else "white", label=answer)
                            for answer in answers] or [Line2D([], [], linestyle="none", label="no answer")],
                   loc="upper left", bbox_to_anchor=(1.01, 1), borderaxespad=0, fontsize="small")
    return figure


def draw_echo(runs, args):
    if all(names_hosts(run) for run in runs):
        rows_of = [host_rows(run) for run in runs]
        if sum(map(len, rows_of)) <= MOST_HOST_ROWS:
            return draw_hosts(runs, args, rows_of)
    figure, axes = new_figure(args.title or "Round-trip time", 8, 2, [3, 2], sharex=False)
    time_axis, spread_axis = axes
    together = sorted(rtt for run in runs for rtt in round_trips(run))
    edges = rtt_edges(together, 60) if together else []
    for colour, run in zip(line_colours(len(runs)), runs):
        draw_run_echo(*axes, run, colour, edges)
    if together:
        spread_axis.legend(handles=percent_marks(runs), loc="upper left", bbox_to_anchor=(1.01, 1), borderaxespad=0,
                           fontsize="small")
    else:
        note(time_axis, "no answer")
        note(spread_axis, "no answer")
        spread_axis.set_xticks([])
    if is_wide(together):
        spread_axis.set_xscale("log")
        log_ticks(spread_axis.xaxis)
        time_axis.set_yscale("log")
        log_ticks(time_axis.yaxis)
    elif together:
        time_axis.set_ylim(min(0, together[0]), max(1.08 * together[-1], 0.001))
    banded = any(len(run.items) > MOST_REQUESTS for run in runs)
    time_axis.set_xlabel("request" if not banded else "request (median, 5 to 95 %, lowest to highest of each group)")
    time_axis.set_ylabel("round-trip time, ms")
    number_axis(time_axis, runs)
    spread_axis.set_xlabel("round-trip time, ms")
    spread_axis.set_ylabel("answers")
    whole_ticks(spread_axis.yaxis)
    labels = [f"{label}: {len(round_trips(run))} of {run.sent}" for label, run in zip(run_labels(runs), runs)]
    add_key(figure, time_axis, labels, echo_marks(runs))
    return figure


