# SPDX-License-Identifier: MIT
"""A line in the history that vorn-record keeps and vorn-plot draws.

Its phases become runs of their own, told apart by their labels: a median over idle and loaded round trips would say
nothing.
"""

from vorn_companions.line.result import Line
from vorn_companions.read.records import REPLY, Batch, Destination, Echo, Timeout
from vorn_companions.store import database

PHASE_OF_RATE = {"down": "capacity", "up": "up rate"}


def label_of(line: Line, name: str) -> str:
    return f"{line.label} {name}".strip()


def rate_in(line: Line, name: str) -> float | None:
    """The Mbit/s that a phase found, if it is one that finds any and has."""
    rate = {"down": line.down, "up": line.up, "lossless": line.lossless}.get(name)
    return rate.mbps if rate else None


def keep(store: database.Store, site: str, line: Line) -> None:
    """In one transaction; raises sqlite3.Error when nothing could be kept."""
    def append_all(target: database.Store) -> None:
        for name in ("idle", "down", "up", "lossless"):
            if name in line.probes or rate_in(line, name) is not None:
                append(target, site, line, name)
    database.write(store, append_all)


def append(target: database.Store, site: str, line: Line, name: str) -> None:
    """One phase: its probes, each at the time of its answer, and its rate as a batch at its end."""
    times = [(each.start_usec, each.end_usec) for each in line.phases if each.name in (name, PHASE_OF_RATE.get(name))]
    start_usec, end_usec = min(first for first, _ in times), max(last for _, last in times)
    run = database.begin_run(target, ["vorn-line", line.host], start_usec, site, label_of(line, name))
    address = line.address or line.host
    database.append(target, run, start_usec, Destination(address, None))
    for sequence, probe in enumerate(line.probes.get(name, [])):
        record = (Timeout(sequence, None, address, "") if probe.rtt_usec is None
                  else Echo(sequence, probe.rtt_usec, address, REPLY))
        database.append(target, run, probe.sent_usec + (probe.rtt_usec or 0), record)
    if (mbps := rate_in(line, name)) is not None:
        database.append(target, run, end_usec, Batch(1, False, 1, 1, mbps, None))
    database.end_run(target, run, end_usec, 0)
