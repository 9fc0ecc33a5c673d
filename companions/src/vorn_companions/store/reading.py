# SPDX-License-Identifier: MIT
"""What a store holds: runs as records, what they measured as columns of numbers."""

import dataclasses
import itertools
import json
import sqlite3
from typing import Any, NamedTuple

import numpy
import numpy.typing

from vorn_companions.store.database import Store

Integers = numpy.typing.NDArray[numpy.integer[Any]]
LARGEST = 2 ** 31 - 1  # of the columns that hold half a word


class Requests(NamedTuple):
    """An entry a request, by run, then by time. Lost are time-outs and, outside traces, ICMP errors."""

    time_usec: Integers
    value: Integers  # round trip in usec; -1: lost
    run: Integers
    host: Integers  # a name: who answered, or whom the run measures


class Batches(NamedTuple):
    """An entry a batch, by run, then by time."""

    time_usec: Integers
    value: Integers  # kbit/s; -1: bad, or without a rate
    run: Integers
    lost: Integers  # packets


class Packets(NamedTuple):
    """An entry a packet of a stream, by run, in the order of their arrival."""

    batch: Integers  # -1: none
    sequence: Integers
    gap_usec: Integers  # -1: unknown
    run: Integers


@dataclasses.dataclass(frozen=True)
class Selection:
    """Which records to take; None takes all. A host is an address, or the name that the program was given."""

    since_usec: int | None = None
    until_usec: int | None = None
    host: str | None = None
    label: str | None = None
    given: str = ""  # as the user wrote it

    @property
    def takes_whole_runs(self) -> bool:
        return self.since_usec is None and self.until_usec is None and self.host is None


@dataclasses.dataclass
class StoredRun:
    """A row of `run`, its names as text."""

    id: int
    start_usec: int
    end_usec: int | None
    every_usec: int | None
    site: str
    label: str
    command: list[str]
    asked: str
    target: str | None
    last_target: str | None
    trace: bool
    status: int | None
    sent: int | None

    @property
    def towards(self) -> str:
        return self.target or self.asked


def conditions(selection: Selection, host_columns: tuple[str, ...], time_column: str) -> tuple[str, list[int | str]]:
    """SQL and its values for a Selection; the table of runs is `r`."""
    tests, values = ["1"], list[int | str]()
    for value, test in ((selection.since_usec, f"{time_column} >= ?"), (selection.until_usec, f"{time_column} < ?"),
                        (selection.label, "r.label = ?")):
        if value is not None:
            tests.append(test)
            values.append(value)
    if selection.host is not None:
        tests.append("(r.asked = ? OR " + " OR ".join(
            f"{column} = (SELECT id FROM name WHERE text = ?)" for column in host_columns) + ")")
        values += [selection.host] * (1 + len(host_columns))
    return " AND ".join(tests), values


def run_of(row: sqlite3.Row) -> StoredRun:
    fields = {field.name: row[field.name] for field in dataclasses.fields(StoredRun)}
    return StoredRun(**{**fields, "command": json.loads(row["command"]), "trace": bool(row["trace"])})


def runs(store: Store, selection: Selection = Selection()) -> list[StoredRun]:
    """The runs that started in the time of the selection, oldest first."""
    where, values = conditions(selection, ("r.target",), "r.start_usec")
    rows = store.db.execute(
        "SELECT r.id, start_usec, end_usec, every_usec, site, label, command, asked, t.text AS target, "
        "l.text AS last_target, trace, status, sent FROM run r LEFT JOIN name t ON t.id = r.target "
        f"LEFT JOIN name l ON l.id = r.last_target WHERE {where} ORDER BY start_usec, r.id", values)
    return [run_of(row) for row in rows]


def name_texts(store: Store) -> dict[int, str]:
    """Addresses and kinds of answers by their id."""
    return {row["id"]: row["text"] for row in store.db.execute("SELECT id, text FROM name ORDER BY id")}


def messages(store: Store, run: int) -> list[str]:
    """The errors, warnings and notes of a run."""
    rows = store.db.execute("SELECT text FROM message WHERE run = ? ORDER BY rowid", (run,))
    return [row["text"] for row in rows]


def has_rows(store: Store, table: str) -> bool:
    try:
        return store.db.execute(f"SELECT 1 FROM {table} LIMIT 1").fetchone() is not None
    except sqlite3.OperationalError:  # a table that came with a later version
        return False


def _columns(store: Store, query: str, values: list[int | str], columns: int) -> Integers:
    """An array a column. Plain tuples of whole numbers, one after the other: the fastest there is for millions."""
    cursor = store.db.cursor()
    cursor.row_factory = None
    numbers = itertools.chain.from_iterable(cursor.execute(query, values))
    return numpy.fromiter(numbers, numpy.int64).reshape(-1, columns).T


# Whom an answer tells of: an error about a request, outside a trace, tells that its destination was not reached.
IS_ANSWER = "(e.answer = 0 OR (r.trace AND e.answer IS NOT NULL))"
MEASURED_HOST = f"(CASE WHEN {IS_ANSWER} OR e.answer IS NULL OR r.last_target IS NOT NULL THEN e.host " \
                "ELSE ifnull(r.target, e.host) END)"


def requests(store: Store, selection: Selection) -> Requests:
    where, values = conditions(selection, ("e.host", "r.target"), "e.time_usec")
    trip = f"CASE WHEN {IS_ANSWER} THEN ifnull(min(max(e.rtt_usec, 0), {LARGEST}), -1) ELSE -1 END"
    # Run and host in one number: the fewer there are, the faster they are read.
    time_usec, value, place = _columns(
        store, f"SELECT e.time_usec, {trip}, e.run << 32 | {MEASURED_HOST} FROM run r CROSS JOIN echo e ON e.run = r.id "
        f"WHERE {where} ORDER BY r.id, e.time_usec", values, 3)
    return Requests(time_usec.copy(), value.astype(numpy.int32), (place >> 32).astype(numpy.int32),
                    (place & LARGEST).astype(numpy.int32))


def batches(store: Store, selection: Selection) -> Batches:
    where, values = conditions(selection, ("r.target",), "b.time_usec")
    return Batches(*_columns(
        store, "SELECT b.time_usec, CASE WHEN b.bad THEN -1 ELSE ifnull(max(b.rate_kbps, 0), -1) END, b.run, "
        f"max(0, b.size - b.received) FROM run r CROSS JOIN batch b ON b.run = r.id WHERE {where} "
        "ORDER BY r.id, b.time_usec", values, 4))


def packets(store: Store, selection: Selection) -> Packets:
    if not has_rows(store, "packet"):
        return Packets(*numpy.zeros((4, 0), numpy.int64))
    where, values = conditions(selection, ("r.target",), "p.time_usec")
    return Packets(*_columns(
        store, "SELECT ifnull(p.batch, -1), p.sequence, ifnull(p.gap_usec, -1), p.run FROM run r "
        f"CROSS JOIN packet p ON p.run = r.id WHERE {where} ORDER BY r.id, p.rowid", values, 4))


def batch_sizes(store: Store) -> dict[tuple[int, int], int]:
    """Packets that were sent, by run and number of the batch."""
    return {(row["run"], row["number"]): row["size"] for row in store.db.execute("SELECT run, number, size FROM batch")}
