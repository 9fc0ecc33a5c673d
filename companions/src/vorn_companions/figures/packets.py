# SPDX-License-Identifier: MIT
"""Packets: delay variation, runs of loss, reordering and duplicates of streams whose every packet was noted.

Nothing on a packet tells when it was sent; a monitor sends evenly, so the delay of packet i, but for a constant, is
its arrival less i periods. The period is the mean distance of the packets behind the first burst, which is found by the
slope of the second half.
- IPDV (RFC 5481, 4.1): the delay of a packet less that of the one before it in sequence.
- PDV (RFC 5481, 4.2): the delay of a packet less the smallest of its batch.
- Runs of loss (RFC 3357): packets in a row that did not arrive.
- Reordered (RFC 4737, 3 and 4.2): a packet that comes after one with a larger number; its extent is how many packets
  before it the earliest of those arrived.
- Duplicates (RFC 5560): copies beyond the first.
"""

import collections
import dataclasses
import itertools
from collections.abc import Iterator, Sequence
from typing import Any, NamedTuple

import numpy

from vorn_companions.figures import canvas
from vorn_companions.figures.batches import run_labels, spread_sheet
from vorn_companions.figures.cdf import CURVE, TICKS, natural
from vorn_companions.figures.history import LABEL_OF
from vorn_companions.figures.numbers import Floats, loss_percent, percentiles
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.figures.units import MICROSECONDS
from vorn_companions.read.records import Sources
from vorn_companions.store import reading
from vorn_companions.store.database import reading as opened
from vorn_companions.store.reading import Integers, has_rows
from vorn_companions.words import NothingChosen, printable

FIRST_BURST_USEC = 10_000  # what a stream begins with leaves at once: time that a sender has to its credit
LEAST_PACKETS = 3  # of which a distance can be told


class Stream(NamedTuple):
    """The packets of one batch, in the order of their arrival."""

    label: str
    sequence: Integers
    gap_usec: Integers
    size: int  # packets that were sent


@dataclasses.dataclass
class Line:
    """All streams of a label."""

    label: str
    batches: int = 0
    sent: int = 0
    arrived: int = 0  # copies not counted
    duplicates: int = 0
    extents: list[int] = dataclasses.field(default_factory=list)  # of each reordered packet
    loss_runs: collections.Counter[int] = dataclasses.field(default_factory=collections.Counter)  # length: how often
    left_out: int = 0  # packets of first bursts
    ipdv: list[Floats] = dataclasses.field(default_factory=list)  # ms
    pdv: list[Floats] = dataclasses.field(default_factory=list)

    @property
    def variations(self) -> tuple[Floats, Floats]:
        return tuple(numpy.concatenate(parts) if parts else numpy.zeros(0)  # type: ignore[return-value]
                     for parts in (self.ipdv, self.pdv))


# --- where they come from ---

def stored_streams(paths: Sequence[str], options: Options) -> Iterator[Stream]:
    for path in paths:
        with opened(path) as store:
            label_of = {run.id: LABEL_OF[options.by or "host"](run) for run in reading.runs(store)}
            sizes = reading.batch_sizes(store)
            rows = reading.packets(store, options.selection)
            if not len(rows.run):
                continue
            cuts = numpy.flatnonzero((numpy.diff(rows.run) != 0) | (numpy.diff(rows.batch) != 0)) + 1
            for part in numpy.split(numpy.arange(len(rows.run)), cuts):
                run, number = int(rows.run[part[0]]), int(rows.batch[part[0]])
                sequence = rows.sequence[part]
                yield Stream(label_of[run], sequence, rows.gap_usec[part],
                             sizes.get((run, number + 1), int(sequence.max()) + 1))


def saved_streams(sources: Sources) -> Iterator[Stream]:
    for label, run in zip(run_labels(sources.streams), sources.streams):
        sizes = {batch.number: batch.size for batch in run.batches}
        for number, group in itertools.groupby(run.packets, lambda packet: packet.batch):
            packets = list(group)
            sequence = numpy.array([packet.sequence for packet in packets])
            gaps = numpy.array([-1 if packet.gap_usec is None else packet.gap_usec for packet in packets])
            yield Stream(label, sequence, gaps, sizes.get((number or 0) + 1, int(sequence.max()) + 1))


# --- computed ---

def add_variation(line: Line, stream: Stream) -> None:
    """Of a batch that has packets enough behind its first burst."""
    arrival = numpy.cumsum(numpy.maximum(stream.gap_usec, 0))
    sequence, first = numpy.unique(stream.sequence, return_index=True)  # in order, of copies the first
    arrival = arrival[first]
    steady = sequence >= stream.size // 2
    if steady.sum() < LEAST_PACKETS:
        steady = sequence > 0
    if steady.sum() < LEAST_PACKETS:
        return
    period = float(numpy.polyfit(sequence[steady], arrival[steady], 1)[0])
    burst = sequence < round(FIRST_BURST_USEC / max(period, 1))
    line.left_out += int(burst.sum())
    sequence, arrival = sequence[~burst], arrival[~burst]
    if len(sequence) < LEAST_PACKETS:
        return
    period = (arrival[-1] - arrival[0]) / (sequence[-1] - sequence[0])
    delay = (arrival - period * sequence) / 1000
    line.pdv.append(delay - delay.min())
    line.ipdv.append(numpy.diff(delay)[numpy.diff(sequence) == 1])


def add_order(line: Line, sequence: Integers) -> None:
    """Sequence numbers in the order of arrival, of copies the first."""
    largest = numpy.maximum.accumulate(sequence)
    for place in numpy.flatnonzero(sequence < largest):
        earliest = int(numpy.argmax(sequence[:place] > sequence[place]))
        line.extents.append(int(place) - earliest)


def add_losses(line: Line, sequence: Integers, size: int) -> None:
    """From the numbers that came, in order."""
    runs = numpy.diff(sequence, prepend=-1, append=size) - 1
    line.loss_runs.update(int(run) for run in runs if run > 0)


def compute(sources: Sources, options: Options) -> list[Line]:
    streams = stored_streams(sources.stores, options) if sources.stores else saved_streams(sources)
    lines: dict[str, Line] = {}
    for stream in streams:
        line = lines.setdefault(stream.label, Line(stream.label))
        numbers, first = numpy.unique(stream.sequence, return_index=True)
        line.batches += 1
        line.sent += max(stream.size, int(numbers[-1]) + 1)
        line.arrived += len(numbers)
        line.duplicates += len(stream.sequence) - len(numbers)
        add_order(line, stream.sequence[numpy.sort(first)])
        add_losses(line, numbers, max(stream.size, int(numbers[-1]) + 1))
        add_variation(line, stream)
    if not lines:
        places = sources.stores or [run.path for run in sources.streams]
        raise NothingChosen(", ".join(places), None, "no packet of a stream (vorn-record --packets keeps them)"
                            f"{options.selection.given}")
    return sorted(lines.values(), key=lambda line: natural(line.label))


def has_data(sources: Sources) -> bool:
    if any(run.packets for run in sources.streams):
        return True
    for path in sources.stores:
        with opened(path) as store:
            if has_rows(store, "packet"):
                return True
    return False


# --- text ---

def reordering_text(line: Line) -> str:
    percent = f"{len(line.extents)} reordered ({loss_percent(line.arrived, len(line.extents)):.3g} %)"
    return percent + (f" by up to {max(line.extents)} packets" if line.extents else "")


def text(sources: Sources, options: Options) -> list[Block]:
    blocks: list[Block] = ["Packets of streams: delay variation, losses and order"]
    for line in compute(sources, options):
        lost = line.sent - line.arrived
        blocks += ["", f"{printable(line.label)}: {line.arrived} of {line.sent} packets in {line.batches} batches, "
                   f"{lost} lost ({loss_percent(line.sent, lost):.3g} %), {line.duplicates} duplicates, "
                   f"{reordering_text(line)}"]
        if line.left_out:
            blocks.append(f"  {line.left_out} packets of the first {FIRST_BURST_USEC // 1000} ms of their batches "
                          "leave at once and are left out of delay variation")
        ipdv, pdv = line.variations
        blocks.append(spread_sheet([("IPDV, usec", ipdv, MICROSECONDS), ("PDV, usec", pdv, MICROSECONDS)]))
        if line.loss_runs:
            rows = [[str(length), str(count)] for length, count in sorted(line.loss_runs.items())]
            blocks.append(Sheet([("lost in a row", 15), ("times", 8)], rows, "  "))
    return blocks


# --- picture ---

def draw(sources: Sources, options: Options) -> Any:
    lines = compute(sources, options)
    figure, (delays, losses) = canvas.new_figure(options.title or "Packets of streams", 8, 2, [3, 1.3], sharex=False)
    canvas.stretch_shares(delays, 100.001, TICKS)
    ends: list[float] = []
    for place, (colour, line) in enumerate(zip(canvas.line_colours(len(lines)), lines)):
        for values, style in zip(line.variations, ("--", "-")):
            points = [point for point in percentiles(numpy.abs(values) * 1000, CURVE) if point is not None]
            if points:
                delays.plot(points, CURVE, color=colour, linestyle=style, linewidth=1.5, drawstyle="steps-post",
                            clip_on=False)
                ends += [points[0], points[-1]]
        width = 0.8 / len(lines)
        lengths = sorted(line.loss_runs)
        losses.bar([length - 0.4 + width * (place + 0.5) for length in lengths],
                   [line.loss_runs[length] for length in lengths], width, color=colour)
    if not ends:
        canvas.note(delays, "no packet behind the first burst")
        delays.set_xticks([])
    elif max(ends) > 0:
        delays.set_xlim(0, 1.05 * max(ends))
    delays.set_xlabel("delay variation, usec: PDV, and IPDV without its sign")
    delays.set_ylabel("packets that vary no more")
    losses.set_xlabel("packets lost in a row")
    losses.set_ylabel("times")
    if not any(line.loss_runs for line in lines):
        canvas.note(losses, "no loss")
        losses.set_xticks([])
    else:
        canvas.whole_ticks(losses.xaxis)
    canvas.add_key(figure, delays, [f"{printable(line.label)}: {line.arrived} of {line.sent}" for line in lines],
                   [canvas.key_line("PDV", color="dimgray"), canvas.key_line("IPDV", color="dimgray", linestyle="--")])
    return figure
