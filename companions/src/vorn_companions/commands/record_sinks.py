# SPDX-License-Identifier: MIT
"""Where vorn-record puts what happens: into a store, or as lines onto standard output."""

import array
import dataclasses
import json
import os
import re
import sqlite3
import sys
import tempfile
import time
from collections.abc import Sequence
from typing import Protocol

from vorn_companions.figures.numbers import guaranteed, percentiles
from vorn_companions.read.records import (REPLY, Batch, Message, Record, Request, RunningRate, StreamPacket)
from vorn_companions.store import database
from vorn_companions.words import printable

SCHEMA = 1  # of the JSON lines
PATIENCE_SEC = 5.0  # with a store that cannot be written; one that another program holds may take longer
MOST_PENDING = 1_000_000  # lines that wait for it


def say(text: str) -> None:
    print(f"vorn-record: {printable(text)}", file=sys.stderr, flush=True)


# --- what happens ---

@dataclasses.dataclass
class Begin:
    run: int  # counted from 1
    time_usec: int
    command: list[str]
    site: str
    label: str
    every_usec: int | None


@dataclasses.dataclass
class Kept:
    run: int
    stamped: list[tuple[int, Record]]


@dataclasses.dataclass
class End:
    run: int
    time_usec: int
    status: int  # as subprocess gives it


Event = Begin | Kept | End


class Sink(Protocol):
    period_sec: float  # how long lines may be gathered; 0: each as it arrives

    def take(self, event: Event) -> None: ...

    def commit(self) -> bool:
        """False when nothing more can be kept."""

    def close(self) -> bool:
        """True when all was kept."""


# --- a store ---

class StoreSink:
    """Keeps records in a store, by a transaction a second. What a store that cannot be written does not take goes to a
    file that is named, or to standard output."""

    period_sec = 1.0

    def __init__(self, path: str) -> None:
        self.store = database.open_to_write(path)
        self.ids: dict[int, int] = {}  # of our runs, those that are committed
        self.pending: list[Event] = []
        self.failing_since: float | None = None
        self.given_up = False

    def take(self, event: Event) -> None:
        self.pending.append(event)

    def insert(self, target: database.Store) -> dict[int, int]:
        """All that is pending; the ids of the runs."""
        ids = dict(self.ids)
        for event in self.pending:
            if isinstance(event, Begin):
                ids[event.run] = database.begin_run(target, event.command, event.time_usec, event.site, event.label,
                                                    event.every_usec)
            elif isinstance(event, Kept):
                for time_usec, record in event.stamped:
                    database.append(target, ids[event.run], time_usec, record)
            else:
                database.end_run(target, ids[event.run], event.time_usec, event.status)
        return ids

    def lines(self) -> int:
        return sum(len(event.stamped) for event in self.pending if isinstance(event, Kept))

    def commit(self) -> bool:
        if self.given_up:
            return False
        try:
            self.ids = database.write(self.store, self.insert)
        except sqlite3.Error as error:
            return self.wait_or_give_up(error)
        if self.failing_since is not None:
            say(f"{self.store.path}: written again, nothing is missing")
        self.failing_since = None
        self.pending.clear()
        return True

    def wait_or_give_up(self, error: sqlite3.Error) -> bool:
        now = time.monotonic()
        if self.failing_since is None:
            self.failing_since = now
            say(f"{self.store.path}: {error}; trying again")
        busy = getattr(error, "sqlite_errorname", "").startswith(("SQLITE_BUSY", "SQLITE_LOCKED"))
        self.given_up = self.lines() >= MOST_PENDING or not busy and now - self.failing_since >= PATIENCE_SEC
        if self.given_up:
            say(f"{self.store.path}: {error}; the run is ended")
        return not self.given_up

    def rescue(self) -> None:
        """What is still pending as JSON lines."""
        shown = JsonFormat()
        text = "".join(line for event in self.pending for line in shown.lines(event))
        try:
            with tempfile.NamedTemporaryFile("w", prefix="vorn-record-", suffix=".json", delete=False) as stream:
                stream.write(text)
            say(f"{self.store.path}: the last {self.lines()} lines are not in it, they are in {stream.name}")
        except OSError as error:
            say(f"{self.store.path}: the last {self.lines()} lines are not in it, they follow on standard output "
                f"({error.filename}: {error.strerror})")
            sys.stdout.write(text)
            sys.stdout.flush()

    def close(self) -> bool:
        kept = self.commit() and not self.pending
        if not kept:
            self.rescue()
        database.close(self.store)
        return kept


# --- lines ---

class Figures:
    """What a run measured, for its last line."""

    def __init__(self) -> None:
        self.requests = 0
        self.rtt_usec = array.array("q")  # of the replies
        self.rates = array.array("d")  # of the good batches, Mbit/s
        self.batches = self.bad = 0

    def count(self, record: Record) -> None:
        if isinstance(record, Request):
            self.requests += 1
            if record.answer == REPLY and record.rtt_usec is not None:
                self.rtt_usec.append(record.rtt_usec)
        elif isinstance(record, Batch):
            self.batches += 1
            self.bad += record.bad
            if not record.bad and record.rate is not None:
                self.rates.append(record.rate)

    def fields(self) -> dict[str, float | None]:
        rtt = percentiles(self.rtt_usec, (0, 50, 95, 99, 100))
        return {"requests": self.requests, "replies": len(self.rtt_usec),
                **{f"rtt_{name}_usec": value if value is None else round(value)
                   for name, value in zip(("min", "median", "p95", "p99", "max"), rtt)},
                "batches": self.batches, "bad": self.bad,
                **dict(zip(("rate_median", "rate_p99"), guaranteed(self.rates, (50, 99))))}


class Format(Protocol):
    def lines(self, event: Event) -> list[str]: ...


class JsonFormat:
    """An object a line; the manual lists them. Whatever is added later is a new kind or a new field."""

    def __init__(self) -> None:
        self.figures: dict[int, Figures] = {}

    def line(self, run: int, time_usec: int, kind: str, fields: dict[str, object]) -> str:
        return json.dumps({"time": time_usec / 1e6, "run": run, "kind": kind, **fields}) + "\n"

    def lines(self, event: Event) -> list[str]:
        figures = self.figures.setdefault(event.run, Figures())
        if isinstance(event, Begin):
            return [self.line(event.run, event.time_usec, "run", {
                "schema": SCHEMA, "command": event.command, "site": event.site, "label": event.label})]
        if isinstance(event, End):
            del self.figures[event.run]
            return [self.line(event.run, event.time_usec, "summary", dict(figures.fields())),
                    self.line(event.run, event.time_usec, "end", {"status": event.status})]
        found = []
        for time_usec, record in event.stamped:
            figures.count(record)
            fields = {field.name: getattr(record, field.name) for field in dataclasses.fields(record)}
            found.append(self.line(event.run, time_usec, type(record).__name__.lower(), fields))
        return found


def escaped(text: str) -> str:
    """A tag of the line protocol."""
    return re.sub(r"([,= \\])", r"\\\1", printable(text))


class InfluxFormat:
    """Line protocol: measurement, tags, fields, nanoseconds; of what has figures."""

    def __init__(self) -> None:
        self.tags: dict[int, dict[str, str]] = {}
        self.figures: dict[int, Figures] = {}

    def line(self, run: int, time_usec: int, name: str, fields: dict[str, object], **more: str) -> list[str]:
        tags = "".join(f",{key}={escaped(value)}" for key, value in {**self.tags[run], **more}.items() if value)
        values = ",".join(f"{key}={self.field(value)}" for key, value in fields.items() if value is not None)
        return [f"vorn_{name}{tags} {values} {time_usec}000\n"] if values else []

    @staticmethod
    def field(value: object) -> str:
        if isinstance(value, bool):
            return "true" if value else "false"
        return f"{value}i" if isinstance(value, int) else f"{value}"

    def lines(self, event: Event) -> list[str]:
        if isinstance(event, Begin):
            self.tags[event.run] = {"site": event.site, "label": event.label}
            self.figures[event.run] = Figures()
            return []
        if isinstance(event, End):
            fields: dict[str, object] = {**self.figures.pop(event.run).fields(), "status": event.status}
            found = self.line(event.run, event.time_usec, "run", fields)
            del self.tags[event.run]
            return found
        return [line for time_usec, record in event.stamped for line in self.record_lines(event.run, time_usec, record)]

    def record_lines(self, run: int, time_usec: int, record: Record) -> list[str]:
        self.figures[run].count(record)
        if isinstance(record, Request):
            return self.line(run, time_usec, "echo", {
                "sequence": record.sequence, "rtt_usec": record.rtt_usec, "answered": record.answer == REPLY},
                host=record.host, answer=record.answer)
        if isinstance(record, Batch):
            return self.line(run, time_usec, "batch", {
                "number": record.number, "bad": record.bad, "received": record.received, "size": record.size,
                "rate_mbps": record.rate, "buffer_ms": record.buffer})
        if isinstance(record, RunningRate):
            return self.line(run, time_usec, "rate", {
                "rate_mbps": record.rate, "sent": record.sent, "received": record.received, "lost": record.lost})
        if isinstance(record, StreamPacket):
            return self.line(run, time_usec, "packet", {
                "batch": record.batch, "sequence": record.sequence, "gap_usec": record.gap_usec}, host=record.host)
        return []


FORMATS: dict[str, type[JsonFormat] | type[InfluxFormat]] = {"json": JsonFormat, "influx": InfluxFormat}


class LineSink:
    """Prints each line as soon as it arrives."""

    period_sec = 0.0

    def __init__(self, shown: Format) -> None:
        self.shown = shown
        self.pending: list[str] = []
        self.failed = False

    def take(self, event: Event) -> None:
        self.pending += self.shown.lines(event)

    def commit(self) -> bool:
        if not self.failed:
            try:
                sys.stdout.write("".join(self.pending))
                sys.stdout.flush()
            except OSError as error:
                self.failed = True
                if not isinstance(error, BrokenPipeError):
                    say(f"standard output: {error.strerror}")
                # Python would try again, and complain, when it closes the stream.
                os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        self.pending.clear()
        return not self.failed

    def close(self) -> bool:
        return self.commit()


def kept_records(stamped: Sequence[tuple[int, Record]], packets: bool) -> list[tuple[int, Record]]:
    """Without what says nothing, and without packets unless they are wanted."""
    return [(time_usec, record) for time_usec, record in stamped
            if not (isinstance(record, Message) and not record.trouble)
            and (packets or not isinstance(record, StreamPacket))]
