# SPDX-License-Identifier: MIT
"""The hosts of a sweep and the routers of a trace: who answered, when, and who did not."""

import dataclasses
import ipaddress
from collections.abc import Sequence
from typing import Any

from vorn_companions.figures import canvas
from vorn_companions.figures.canvas import BAD_COLOUR, PALETTE
from vorn_companions.figures.numbers import percentile
from vorn_companions.figures.sheet import Sheet
from vorn_companions.figures.units import Unit
from vorn_companions.read.records import REPLY, EchoRun, Hop

NO_ANSWER = "no answer"
NO_LINE = "no line"
MOST_TEXT_ROWS = 1000


@dataclasses.dataclass
class HostRow:
    """Requests in a row that one host answered, or that nobody did."""

    first: int  # request
    last: int
    host: str  # or "first to last"; empty when it is not known whom they went to
    answer: str  # NO_ANSWER, NO_LINE: neither an answer nor a time-out was printed
    times: list[float]  # ms

    @property
    def requests(self) -> str:
        return str(self.first) if self.first == self.last else f"{self.first} to {self.last}"


def names_hosts(run: EchoRun) -> bool:
    """Whether the run is one of several hosts: a sweep or a trace."""
    return run.last is not None or len({request.host for request in run.requests}) > 1


def span(first: str, last: str) -> str:
    return first if first == last else f"{first} to {last}"


def requests_a_host(run: EchoRun) -> int | None:
    """How many requests each address of a sweep got; None when that cannot be told."""
    if run.first is None or run.last is None:
        return None
    first = int(ipaddress.ip_address(run.first))
    count = int(ipaddress.ip_address(run.last)) - first + 1
    if count <= 0:
        return None
    each = max(1, run.sent // count)
    # An answer of the host itself must be where this puts it; a run that was stopped may not add up.
    fits = all(int(ipaddress.ip_address(request.host)) == first + request.sequence // each
               for request in run.requests if request.answer in ("", REPLY))
    return each if fits else None


def add_row(rows: list[HostRow], row: HostRow) -> None:
    """Joined to the row before when that is of the same host, or as silent."""
    before = rows[-1] if rows else None
    silent = row.answer in (NO_ANSWER, NO_LINE)
    if before and before.answer == row.answer and (silent or before.host == row.host):
        before.last = row.last
        before.times += row.times
        before.host = span(before.host.split(" to ")[0], row.host.split(" to ")[-1])
    else:
        rows.append(row)


def host_rows(run: EchoRun) -> list[HostRow]:
    """The rows of a run, in the order of its requests, those without an answer or without a line included.

    In a sweep an error names whom it tells of. Which router stayed silent, nobody knows.
    """
    each = requests_a_host(run)
    base = int(ipaddress.ip_address(run.first)) if each and run.first else 0
    is_trace = any(isinstance(request, Hop) for request in run.requests) and not each
    rows: list[HostRow] = []

    def asked(sequence: int) -> str:
        return str(ipaddress.ip_address(base + sequence // each)) if each else ""

    def add_gap(first: int, last: int) -> None:
        if first <= last:
            add_row(rows, HostRow(first, last, span(asked(first), asked(last)), NO_LINE, []))

    expected = 0
    for request in run.requests:
        add_gap(expected, request.sequence - 1)
        host = request.host
        if each and request.answer not in ("", REPLY):
            host = f"{asked(request.sequence)} (says {host})"
        elif is_trace and not request.answer:
            host = ""
        add_row(rows, HostRow(request.sequence, request.sequence, host, request.answer or NO_ANSWER,
                              [] if request.rtt is None else [request.rtt]))
        expected = request.sequence + 1
    add_gap(expected, run.sent - 1)
    return rows


def host_sheet(run: EchoRun, unit: Unit) -> Sheet:
    rows = host_rows(run)
    table: list[Sequence[str] | str] = []
    for row in rows[:MOST_TEXT_ROWS]:
        several = row.answer in (NO_ANSWER, NO_LINE) and row.first != row.last
        what = f"{row.answer} to {row.last - row.first + 1} requests" if several else row.answer
        table.append([row.requests, f"  {row.host or '-'}", unit.cell(percentile(row.times, 50)), f"  {what}"])
    if len(rows) > MOST_TEXT_ROWS:
        table.append(f"  ... and {len(rows) - MOST_TEXT_ROWS} more")
    width = max(17, *(len(row[1]) for row in table if not isinstance(row, str)))
    return Sheet([("requests", 15), ("  host", -(width + 2)), (f"median {unit.name}", 11), ("  answer", -1)], table,
                 "  ")


# --- picture ---

def draw_run(axis: Any, rows: Sequence[HostRow], unit: Unit) -> None:
    """A line a host: its round trips, or why there is none."""
    for place, row in enumerate(rows):
        shape = {"marker": "o"} if row.answer == REPLY else {"marker": "D", "markerfacecolor": "white"}
        axis.plot([unit.of(time) for time in row.times], [place] * len(row.times), color=PALETTE[0], markersize=6,
                  linestyle="none", **shape)
        if not row.times:
            axis.text(0.01, place, row.answer, transform=axis.get_yaxis_transform(), color=BAD_COLOUR, va="center",
                      fontsize="small")
    times = [time * unit.factor for row in rows for time in row.times]
    if not times:
        axis.set_xticks([])
    canvas.time_scale(axis, "x", times)
    axis.set_yticks(range(len(rows)), fontsize="small",
                    labels=[canvas.legend_text(f"{row.host or '?'}   {row.requests}", 44) for row in rows])
    axis.set_ylim(len(rows) - 0.5, -0.5)
    axis.set_ylabel("host   request")


def answer_mark(answer: str) -> Any:
    reply = answer == REPLY
    return canvas.key_mark(answer, "o" if reply else "D", color=PALETTE[0],
                           markerfacecolor=PALETTE[0] if reply else "white")


def draw(title: str, labels: Sequence[str], rows_of: Sequence[Sequence[HostRow]], unit: Unit) -> Any:
    heights = [len(rows) + 2 for rows in rows_of]
    figure, axes = canvas.new_figure(title, 1.5 + 0.28 * sum(heights), len(rows_of), heights, sharex=False)
    for axis, label, rows in zip(axes, labels, rows_of):
        draw_run(axis, rows, unit)
        axis.set_title(canvas.legend_text(label), loc="left", fontsize="medium")
    axes[-1].set_xlabel(f"round-trip time, {unit.name}")
    answers = sorted({row.answer for rows in rows_of for row in rows if row.times},
                     key=lambda answer: (answer != REPLY, answer))
    canvas.legend_beside(axes[0], [*map(answer_mark, answers)] or [canvas.key_line(NO_ANSWER, linestyle="none")])
    return figure
