# SPDX-License-Identifier: MIT
"""One picture of a line: round trips over the run, its phases shaded, and their distributions beside them."""

from typing import Any

from vorn_companions.figures.canvas import BAD_COLOUR, bare_figure, prepare, time_scale
from vorn_companions.figures.page import page
from vorn_companions.figures.sheet import Block
from vorn_companions.line.result import Line

WIDTH_INCHES, HEIGHT_INCHES = 12, 5
COLOURS = {"idle": "tab:green", "down": "tab:blue", "up": "tab:orange"}
SHADES = {"idle": "tab:green", "capacity": "tab:blue", "down": "tab:blue", "lossless": "tab:blue",
          "up rate": "tab:orange", "up": "tab:orange"}
TITLES = {"idle": "idle", "capacity": "rate\ndown", "down": "load\ndown", "lossless": "lossless\nrate down",
          "up rate": "rate\nup", "up": "load\nup"}


def draw(line: Line) -> Any:
    figure = bare_figure(f"Line to {line.host}" + f", {line.label}" * bool(line.label), WIDTH_INCHES, HEIGHT_INCHES)
    over_time, distributions = figure.subplots(1, 2, gridspec_kw={"width_ratios": [3, 2]})
    draw_phases(over_time, line)
    draw_round_trips(over_time, line)
    draw_distributions(distributions, line)
    return figure


def draw_phases(axis: Any, line: Line) -> None:
    for phase in line.phases:
        start, end = (seconds_of(line, usec) for usec in (phase.start_usec, phase.end_usec))
        axis.axvspan(start, end, color=SHADES[phase.name], alpha=0.14 if phase.name in COLOURS else 0.05, linewidth=0)
        axis.text((start + end) / 2, 1.01, TITLES[phase.name], transform=axis.get_xaxis_transform(), ha="center",
                  va="bottom", fontsize="small")


def seconds_of(line: Line, time_usec: int) -> float:
    return (time_usec - line.started_usec) / 1e6


def draw_round_trips(axis: Any, line: Line) -> None:
    lost_labels = ["lost"]
    for name, probes in line.probes.items():
        answered = [probe for probe in probes if probe.rtt_usec is not None]
        axis.plot([seconds_of(line, probe.sent_usec) for probe in answered],
                  [probe.rtt_usec / 1000 for probe in answered if probe.rtt_usec is not None], ".", markersize=3,
                  color=COLOURS[name])
        lost = [seconds_of(line, probe.sent_usec) for probe in probes if probe.rtt_usec is None]
        if lost:
            axis.plot(lost, [0.98] * len(lost), "v", markersize=4, color=BAD_COLOUR,
                      label=lost_labels and lost_labels.pop(), transform=axis.get_xaxis_transform())
    if not lost_labels:
        axis.legend(loc="upper right", fontsize="small")
    axis.set(xlim=(0, line.seconds), xlabel="seconds", ylabel="round trip, msec")
    axis.set_ylim(bottom=0)
    axis.grid(True, alpha=0.3)


def draw_distributions(axis: Any, line: Line) -> None:
    for name, probes in line.met.items():
        trips = sorted(probe.rtt_usec / 1000 for probe in probes if probe.rtt_usec is not None)
        shares = [100 * (place + 1) / len(probes) for place in range(len(trips))]
        axis.step(trips, shares, where="post", color=COLOURS[name], label=name if name == "idle" else f"load {name}")
    axis.set(ylim=(0, 100), xlabel="round trip, msec", ylabel="% of the pings answered within")
    times = [probe.rtt_usec / 1000 for probes in line.met.values() for probe in probes if probe.rtt_usec is not None]
    if times:
        time_scale(axis, "x", times)
        axis.legend(loc="lower center", bbox_to_anchor=(0.5, 1), ncols=3, frameon=False, fontsize="small")
    axis.grid(True, alpha=0.3)


def save(line: Line, blocks: list[Block], path: str) -> None:
    """As SVG or PNG, or with its figures as one page, by the ending of the name. Raises OSError."""
    prepare()
    figure = draw(line)
    if path.lower().endswith(".html"):
        with open(path, "w", encoding="utf-8") as stream:
            stream.write(page("A line", [(figure, blocks)]))
        return
    metadata = {"Date": None} if path.lower().endswith(".svg") else {"Software": None}
    figure.savefig(path, dpi=120, metadata=metadata)
