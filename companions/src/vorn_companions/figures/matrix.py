# SPDX-License-Identifier: MIT
"""Matrix: what the last runs between each two hosts found.

A stream is sent by the host that was commanded, so its rate is that from there to the site which recorded it. Requests
go the other way, from the site, and come back: their loss is that of both ways.
"""

import dataclasses
from collections.abc import Sequence
from typing import Any

import numpy

from vorn_companions.figures import canvas
from vorn_companions.figures.cdf import natural
from vorn_companions.figures.numbers import Floats, guaranteed, loss_percent, percentile
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block, Sheet
from vorn_companions.figures.units import local
from vorn_companions.program import is_stream
from vorn_companions.read.records import Sources
from vorn_companions.store import reading
from vorn_companions.store.database import Store, reading as opened
from vorn_companions.store.reading import Selection, StoredRun
from vorn_companions.words import NothingChosen, printable

SHARE = 99
MOST_COLUMNS = 12  # of a table; more hosts are a line a pair
MOST_NAMED = 3  # worst pairs of each figure
NONE = "none"  # in place of a figure: nothing arrived

Way = tuple[str, str]  # from a host to another


@dataclasses.dataclass
class Cell:
    """From one host to another. None in place of a figure: not measured, or that nothing arrived."""

    rate: float | None = None  # Mbit/s that SHARE percent of the good batches reached or beat
    rate_tried: bool = False
    rtt: float | None = None  # ms, median
    loss: float | None = None  # percent of the requests; None: none were sent

    def shown(self, name: str) -> float | str | None:
        """The figure; NONE when nothing arrived, None when it was not measured."""
        value: float | None = getattr(self, name)
        tried = self.rate_tried if name == "rate" else self.loss is not None
        return NONE if value is None and tried else value


@dataclasses.dataclass
class Matrix:
    hosts: list[str]
    cells: dict[Way, Cell]
    troubles: dict[Way, str]  # (site, towards): why its last run has found nothing
    first_usec: int
    last_usec: int

    def shown(self, source: str, to: str, name: str) -> float | str | None:
        return self.cells.get((source, to), Cell()).shown(name)


@dataclasses.dataclass(frozen=True)
class Face:
    """One of the figures of a cell."""

    name: str
    title: str
    unit: str
    decimals: int
    low_is_worse: bool


FACES = (
    Face("rate", f"Rate that {SHARE} % of the good batches reached", "Mbit/s", 1, True),
    Face("rtt", "Round trip, median", "ms", 3, False),
    Face("loss", "Requests without an answer", "%", 1, False),
)


# --- computed ---

def pair_of(run: StoredRun) -> Way | None:
    """(site, towards) of a run between two hosts; None for a sweep, a trace or a run without a host."""
    towards = run.asked or run.target
    return (run.site, towards) if towards and not run.trace and not run.last_target else None


def kinds_of(run: StoredRun) -> tuple[bool, ...]:
    """Whether it is a stream; a run that could not be made stands for both kinds."""
    return (is_stream(run.command[1:]),) if run.command else (True, False)


def add_stream(cell: Cell, store: Store, run: StoredRun) -> None:
    rows = store.db.execute("SELECT rate_kbps, bad FROM batch WHERE run = ?", (run.id,)).fetchall()
    rates = [row["rate_kbps"] / 1000 for row in rows if row["rate_kbps"] is not None and not row["bad"]]
    cell.rate, cell.rate_tried = guaranteed(rates, [SHARE])[0], cell.rate_tried or bool(rows)


def add_requests(cell: Cell, store: Store, run: StoredRun) -> None:
    rows = store.db.execute("SELECT rtt_usec, answer FROM echo WHERE run = ?", (run.id,)).fetchall()
    replies = [row["rtt_usec"] for row in rows if row["answer"] == 0]
    sent = max(len(rows), run.sent or 0)
    cell.loss = loss_percent(sent, sent - len(replies)) if sent else None
    cell.rtt = percentile([rtt / 1000 for rtt in replies if rtt is not None], 50)


def add_run(found: Matrix, pair: Way, streams: bool, store: Store, run: StoredRun) -> None:
    way = pair[::-1] if streams else pair
    cell = found.cells.setdefault(way, Cell())
    (add_stream if streams else add_requests)(cell, store, run)
    if cell.loss == 100 and not streams:  # no stream is asked of a host that does not answer
        found.cells.setdefault(pair[::-1], Cell()).rate_tried = True
    messages = reading.messages(store, run.id)
    if messages and (cell.rate is None if streams else cell.rtt is None):
        found.troubles[pair] = messages[0]


def compute(paths: Sequence[str], options: Options) -> Matrix:
    newest: dict[tuple[Way, bool], tuple[str, StoredRun]] = {}
    for path in paths:
        with opened(path) as store:
            for run in reading.runs(store, options.selection):
                pair = pair_of(run)
                for streams in kinds_of(run) if pair else ():
                    before = newest.get((pair, streams)) if pair else None
                    if pair and (before is None or before[1].start_usec <= run.start_usec):
                        newest[pair, streams] = path, run
    if not newest:
        raise NothingChosen(", ".join(paths), None, f"no record of a run between two hosts{options.selection.given}")
    starts = [run.start_usec for _, run in newest.values()]
    found = Matrix([], {}, {}, min(starts), max(starts))
    for path in paths:
        with opened(path) as store:
            for (pair, streams), (place, run) in newest.items():
                if place == path:
                    add_run(found, pair, streams, store, run)
    found.hosts = sorted({host for way in found.cells for host in way}, key=natural)
    return found


def is_matrix(paths: Sequence[str]) -> bool:
    """Whether several sites have measured several hosts: of two hosts a matrix tells no more than their runs."""
    sites, hosts = set[str](), set[str]()
    for path in paths:
        with opened(path) as store:
            for pair in filter(None, map(pair_of, reading.runs(store, Selection()))):
                sites.add(pair[0])
                hosts.update(pair)
    return len(sites) > 1 and len(hosts) > 2


def silent_hosts(found: Matrix) -> list[str]:
    """Hosts of which no figure came, neither from them nor towards them: they are down, or were not asked."""
    heard = {host for way, cell in found.cells.items() if cell.rate is not None or cell.rtt is not None for host in way}
    return [host for host in found.hosts if host not in heard]


def worst(found: Matrix, face: Face) -> list[tuple[str, str, float | str]]:
    """(from, to, value) of hosts that are not silent, the worst first: nothing arrived, then the values."""
    silent = set(silent_hosts(found))
    shown = [(*way, value) for way, cell in found.cells.items() if not set(way) & silent
             and (value := cell.shown(face.name)) is not None and not (face.name == "loss" and value == 0)]

    def badness(entry: tuple[str, str, float | str]) -> Any:
        value = entry[2]
        return (isinstance(value, float), 0 if isinstance(value, str) else value if face.low_is_worse else -value,
                natural(entry[0]), natural(entry[1]))
    return sorted(shown, key=badness)


# --- text ---

def value_text(value: float | str | None, face: Face) -> str:
    return "-" if value is None else value if isinstance(value, str) else f"{value:.{face.decimals}f}"


def worst_text(found: Matrix, face: Face) -> str:
    return ", ".join(f"{printable(source)} to {printable(to)} {value_text(value, face)}"
                     for source, to, value in worst(found, face)[:MOST_NAMED])


def silent_text(found: Matrix) -> str:
    silent = silent_hosts(found)
    return f"no figure from or towards {', '.join(map(printable, silent))}" if silent else ""


def trouble_lines(found: Matrix) -> list[str]:
    """A text that several pairs share is one line."""
    pairs: dict[str, list[str]] = {}
    for (site, towards), trouble in sorted(found.troubles.items()):
        pairs.setdefault(printable(trouble), []).append(f"{printable(site)} towards {printable(towards)}")
    return [f"  {trouble}: {where[0]}" + f" and {len(where) - 1} more" * (len(where) > 1)
            for trouble, where in pairs.items()]


def face_sheet(found: Matrix, face: Face) -> Sheet:
    names = [printable(host) for host in found.hosts]
    width = 2 + max(8, *map(len, names))
    rows = [[name, *("" if host == to else value_text(found.shown(host, to, face.name), face) for to in found.hosts)]
            for name, host in zip(names, found.hosts)]
    return Sheet([("from / to", -max(11, width)), *((name, width) for name in names)], rows, "  ")


def pair_sheet(found: Matrix) -> Sheet:
    width = 2 + max(6, *(len(printable(host)) for host in found.hosts))
    rows = [[printable(source), printable(to), *(value_text(cell.shown(face.name), face) for face in FACES)]
            for (source, to), cell in sorted(found.cells.items(), key=lambda item: [*map(natural, item[0])])]
    return Sheet([("from", -width), ("to", -width), *((f"{face.name}, {face.unit}", 14) for face in FACES)], rows)


def text(sources: Sources, options: Options) -> list[Block]:
    found = compute(sources.stores, options)
    first, last = local(found.first_usec), local(found.last_usec)
    blocks: list[Block] = [f"Matrix of {len(found.hosts)} hosts, the last runs of each pair: {first:%F %T} to "
                           f"{last:%F %T}"]
    if len(found.hosts) > MOST_COLUMNS:
        blocks += ["", pair_sheet(found)]
    for face in FACES:
        blocks += ["", f"{face.title}, {face.unit}"]
        if len(found.hosts) <= MOST_COLUMNS:
            blocks.append(face_sheet(found, face))
        named = worst_text(found, face)
        blocks += [f"  worst: {named}"] * bool(named)
    missing = [f"  {silent_text(found)}"] * bool(silent_hosts(found)) + trouble_lines(found)
    return [*blocks, *["", "Missing"] * bool(missing), *missing]


# --- picture: a map for each figure, the worse the darker ---

MOST_WRITTEN = 16  # hosts; with more the cells are too small for their figures
COLOURS = "YlOrRd"
GAPS: dict[float | str | None, tuple[str, str]] = {
    NONE: ("0.25", "dark: nothing arrived"), None: ("0.85", "grey: not measured")}
NAME_LENGTH = 24


def values_of(found: Matrix, face: Face) -> tuple[Floats, Floats]:
    """Two maps, rows from, columns to: the figures, and which of GAPS there is in place of one; NaN for neither."""
    values = numpy.full((len(found.hosts),) * 2, numpy.nan)
    gaps = values.copy()
    for row, source in enumerate(found.hosts):
        for column, to in enumerate(found.hosts):
            shown = found.shown(source, to, face.name)
            if shown in GAPS and source != to:
                gaps[row, column] = list(GAPS).index(shown)
            elif shown not in GAPS:
                values[row, column] = shown
    return values, gaps


def name_ticks(axis: Any, hosts: Sequence[str]) -> None:
    step = max(1, len(hosts) // 50 + (len(hosts) > 50))
    places = range(0, len(hosts), step)
    names = [canvas.legend_text(hosts[place], NAME_LENGTH) for place in places]
    size = "small" if len(hosts) <= 20 else 6
    axis.set_xticks(places, names, rotation=90 if len(hosts) > 6 or max(map(len, names)) > 8 else 0, fontsize=size)
    axis.set_yticks(places, names, fontsize=size)
    axis.xaxis.tick_top()


def write_values(axis: Any, values: Floats, face: Face, norm: Any) -> None:
    size = 9 if len(values) <= 8 else 6.5
    for row, column in zip(*numpy.nonzero(~numpy.isnan(values))):
        share = norm(values[row, column])
        dark = (1 - share if face.low_is_worse else share) > 0.6
        axis.text(column, row, value_text(float(values[row, column]), face), ha="center", va="center", fontsize=size,
                  color="white" if dark else "black")


def draw_face(figure: Any, axis: Any, found: Matrix, face: Face) -> None:
    values, gaps = values_of(found, face)
    known = values[~numpy.isnan(values)]
    norm = canvas.map_norm(known, face.name == "loss", face.low_is_worse)
    image = axis.imshow(values, cmap=COLOURS + ("_r" if face.low_is_worse else ""), norm=norm, interpolation="nearest")
    axis.imshow(gaps, cmap=canvas.colours_of([colour for colour, _ in GAPS.values()]), vmin=0, vmax=len(GAPS) - 1,
                interpolation="nearest")
    if len(found.hosts) <= MOST_WRITTEN:
        write_values(axis, values, face, norm)
    name_ticks(axis, found.hosts)
    axis.set_title(f"{face.title}, {face.unit}", fontsize="medium")
    axis.set_ylabel("from (row) to (column)", fontsize="small")
    worst_pairs = worst_text(found, face).replace(", ", "\n").replace("$", r"\$")
    notes = ["worst: " + worst_pairs] * bool(worst_pairs)
    notes += [words for number, (_, words) in enumerate(GAPS.values()) if (gaps == number).any()]
    axis.set_xlabel("\n".join(notes), fontsize="small")
    scale = figure.colorbar(image, ax=axis, shrink=0.8)
    if face.name == "loss":
        scale.set_ticks([0, 0.1, 1, 5, 20, 50, 100])


def draw(sources: Sources, options: Options) -> Any:
    found = compute(sources.stores, options)
    side = min(7.5, 3.2 + 0.28 * len(found.hosts))
    figure = canvas.bare_figure(options.title or f"From host to host, {local(found.first_usec):%Y-%m-%d %H:%M} to "
                                f"{local(found.last_usec):%Y-%m-%d %H:%M}", 3 * side + 3, side + 1.6)
    if silent_text(found):
        figure.supxlabel(canvas.legend_text(silent_text(found), 150), fontsize="small")
    for axis, face in zip(figure.subplots(1, len(FACES)), FACES):
        draw_face(figure, axis, found, face)
    return figure
