# SPDX-License-Identifier: MIT
"""The matrix of records: what the last runs between each two hosts found.

A stream is sent by the host that was commanded, so its rate is that from there to the site which recorded it. Requests
go the other way, from the site, and come back: their loss is that of both ways.
"""

import dataclasses
import re

from vorn_companions.store import database as store
from vorn_companions.commands.checked import guaranteed, is_stream, loss_percent, percentile
from vorn_companions.figures.recorded import local_time, refuse_nothing, selection_of
from vorn_companions.figures.sheet import Sheet
from vorn_companions.words import printable

SHARE = 99
MOST_COLUMNS = 12  # of a table; more hosts are a line a pair
MOST_NAMED = 3  # worst pairs of each figure


@dataclasses.dataclass
class Cell:
    """From one host to another. None in place of a figure: not measured, or that nothing arrived."""

    rate: float | None = None  # Mbit/s that SHARE percent of the good batches reached or beat
    rate_tried: bool = False
    rtt: float | None = None  # ms, median
    loss: float | None = None  # percent of the requests; None: none were sent

    def shown(self, name):
        """The figure; "none" when nothing arrived, None when it was not measured."""
        value = getattr(self, name)
        tried = self.rate_tried if name == "rate" else self.loss is not None
        return "none" if value is None and tried else value


@dataclasses.dataclass
class Matrix:
    hosts: list
    cells: dict  # (from, to): Cell
    troubles: dict  # (site, towards): why its last run has found nothing
    first_usec: int
    last_usec: int


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


def natural(name):
    """A key that puts host2 before host10, and addresses in their order."""
    return [(0, int(part), "") if part.isdigit() else (1, 0, part) for part in re.split(r"(\d+)", name) if part]


def pair_of(run):
    """(site, towards) of a run between two hosts; None for a sweep, a trace or a run without a host."""
    towards = run.asked or run.target
    return (run.site, towards) if towards and not run.trace and not run.last_target else None


def last_runs(opened, selection):
    """{(site, towards, is a stream): (store, run)}: the newest; a run that could not be made stands for both kinds."""
    newest = {}
    for each in opened:
        for run in store.runs(each, selection):
            pair = pair_of(run)
            for streams in ((True, False) if not run.command else (is_stream(run.command[1:]),)) if pair else ():
                before = newest.get((*pair, streams))
                if before is None or before[1].start_usec <= run.start_usec:
                    newest[*pair, streams] = (each, run)
    return newest


def add_stream(cell, opened, run):
    rows = opened.db.execute("SELECT rate_kbps, bad FROM batch WHERE run = ?", (run.id,)).fetchall()
    rate = guaranteed([rate / 1000 for rate, bad in rows if rate is not None and not bad], SHARE)
    cell.rate, cell.rate_tried = rate, cell.rate_tried or bool(rows)


def add_requests(cell, opened, run):
    rows = opened.db.execute("SELECT rtt_usec, answer FROM echo WHERE run = ?", (run.id,)).fetchall()
    replies = sorted(rtt / 1000 for rtt, answer in rows if answer == 0 and rtt is not None)
    sent = max(len(rows), run.sent or 0)
    cell.loss, cell.rtt = loss_percent(sent, sum(answer == 0 for _, answer in rows)), percentile(replies, 50)


def matrix(paths, args):
    opened = [store.open_to_read(path) for path in paths]
    newest = last_runs(opened, selection_of(args))
    if not newest:
        refuse_nothing(paths, args, "run between two hosts")
    found = Matrix([], {}, {}, min(run.start_usec for _, run in newest.values()),
                   max(run.start_usec for _, run in newest.values()))
    for (site, towards, streams), (each, run) in newest.items():
        way = (towards, site) if streams else (site, towards)
        cell = found.cells.setdefault(way, Cell())
        (add_stream if streams else add_requests)(cell, each, run)
        if cell.loss == 100 and not streams:  # no stream is asked of a host that does not answer
            found.cells.setdefault((towards, site), Cell()).rate_tried = True
        messages = store.messages(each, run.id)
        if messages and (cell.rate is None if streams else cell.rtt is None):
            found.troubles[site, towards] = messages[0][1]
    found.hosts = sorted({host for way in found.cells for host in way}, key=natural)
    return found


def is_matrix(paths):
    """Whether more than one site has measured."""
    sites = {run.site for path in paths for run in store.runs(store.open_to_read(path)) if pair_of(run)}
    return len(sites) > 1


def silent_hosts(found):
    """Hosts of which no figure came, neither from them nor towards them: they are down, or were not asked."""
    heard = {host for way, cell in found.cells.items() if cell.rate is not None or cell.rtt is not None for host in way}
    return [host for host in found.hosts if host not in heard]


def worst(found, face):
    """[(from, to, value)] of hosts that are not silent, the worst first: nothing arrived, then the values."""
    silent = silent_hosts(found)
    shown = [(*way, cell.shown(face.name)) for way, cell in found.cells.items() if not set(way) & set(silent)]
    shown = [entry for entry in shown if entry[2] is not None and not (face.name == "loss" and entry[2] == 0)]
    return sorted(shown, key=lambda entry: (entry[2] != "none", 0 if entry[2] == "none" else
                                            entry[2] if face.low_is_worse else -entry[2], natural(entry[0]),
                                            natural(entry[1])))


def value_text(value, face):
    return "-" if value is None else value if isinstance(value, str) else f"{value:.{face.decimals}f}"


def worst_text(found, face):
    entries = worst(found, face)[:MOST_NAMED]
    return ", ".join(f"{printable(source)} to {printable(to)} {value_text(value, face)}" for source, to, value in
                     entries)


def silent_text(found):
    silent = silent_hosts(found)
    return f"no figure from or towards {', '.join(map(printable, silent))}" if silent else ""


def trouble_lines(found):
    """A text that several pairs share is one line."""
    pairs = {}
    for (site, towards), text in sorted(found.troubles.items()):
        pairs.setdefault(printable(text), []).append(f"{printable(site)} towards {printable(towards)}")
    return [f"  {text}: {where[0]}" + f" and {len(where) - 1} more" * (len(where) > 1) for text, where in pairs.items()]


# --- text ---

def face_sheet(found, face):
    names = [printable(host) for host in found.hosts]
    width = 2 + max(8, *map(len, names))
    rows = [[name, *("" if host == to else value_text(found.cells.get((host, to), Cell()).shown(face.name), face)
                     for to in found.hosts)] for name, host in zip(names, found.hosts)]
    return Sheet([("from / to", -max(11, width)), *((name, width) for name in names)], rows, "  ")


def pair_sheet(found):
    width = 2 + max(6, *(len(printable(host)) for host in found.hosts))
    rows = [[printable(source), printable(to), *(value_text(cell.shown(face.name), face) for face in FACES)]
            for (source, to), cell in sorted(found.cells.items(), key=lambda item: [*map(natural, item[0])])]
    return Sheet([("from", -width), ("to", -width), *((f"{face.name}, {face.unit}", 14) for face in FACES)], rows)


def matrix_text(paths, args):
    found = matrix(paths, args)
    first, last = local_time(found.first_usec), local_time(found.last_usec)
    blocks = [f"Matrix of {len(found.hosts)} hosts, the last runs of each pair: {first:%F %T} to {last:%F %T}"]
    if len(found.hosts) > MOST_COLUMNS:
        blocks += ["", pair_sheet(found)]
    for face in FACES:
        blocks += ["", f"{face.title}, {face.unit}"]
        if len(found.hosts) <= MOST_COLUMNS:
            blocks.append(face_sheet(found, face))
        named = worst_text(found, face)
        blocks += [f"  worst: {named}"] if named else []
    missing = [f"  {silent_text(found)}"] * bool(silent_hosts(found)) + trouble_lines(found)
    return blocks + ["", "Missing"] * bool(missing) + missing
