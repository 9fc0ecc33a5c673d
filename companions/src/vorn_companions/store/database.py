# SPDX-License-Identifier: MIT
"""Records on disk: one SQLite file that grows by whole transactions and can be read while it grows.

Write-ahead log with a sync at each commit: what was committed survives a kill, a crash and a power cut. Times are
microseconds since 1970 (UTC), when the line arrived. The largest table, `echo`, has its key as its only tree: about
26 bytes a request.
"""

import contextlib
import dataclasses
import json
import os
import sqlite3
from collections.abc import Callable, Iterator, Sequence
from typing import TypeVar

from vorn_companions.program import hosts_of, is_trace
from vorn_companions.read.records import (REPLY, Batch, Completed, Destination, Extremes, Message, Record, Request,
                                          RunningRate, StreamPacket, Totals)
from vorn_companions.words import Unreadable

APPLICATION_ID = 0x566F726E
VERSION = 2
OLDEST_VERSION = 1  # that can be read; it is brought up to date when it is written to

RUN_COLUMNS = """
  id INTEGER PRIMARY KEY,
  start_usec INTEGER NOT NULL,
  end_usec INTEGER,              -- NULL: goes on, or ended without a word
  every_usec INTEGER,            -- one of a series: the time from start to start
  site TEXT NOT NULL,            -- the host that measured
  label TEXT NOT NULL,
  command TEXT NOT NULL,         -- JSON list
  asked TEXT NOT NULL,           -- the destination as it was given
  target INTEGER,                -- name: its address, or the first of a range
  last_target INTEGER,           -- name: the last of a range
  trace INTEGER NOT NULL,        -- 1: routers on the way are what it measures
  status INTEGER,                -- exit status; negative: the signal that ended it
  duration_usec INTEGER, sent INTEGER, received INTEGER,              -- the summary
  min_usec INTEGER, max_usec INTEGER, mean_usec INTEGER"""

PACKET_TABLE = """
CREATE TABLE packet(                                                  -- of a stream, when they are asked for
  run INTEGER NOT NULL, time_usec INTEGER NOT NULL,
  batch INTEGER,                 -- NULL: of the stream that an ICMP monitor measures
  sequence INTEGER NOT NULL, gap_usec INTEGER);
CREATE INDEX packet_run ON packet(run)"""

SCHEMA = f"""
PRAGMA application_id = {APPLICATION_ID};
PRAGMA user_version = {VERSION};
-- Addresses and kinds of answers. 0 is an echo reply: no byte in a row.
CREATE TABLE name(id INTEGER PRIMARY KEY, text TEXT NOT NULL UNIQUE);
INSERT INTO name VALUES(0, '{REPLY}');
CREATE TABLE run({RUN_COLUMNS});
CREATE TABLE echo(
  run INTEGER NOT NULL, time_usec INTEGER NOT NULL, sequence INTEGER NOT NULL,
  host INTEGER NOT NULL,         -- name: who answered, or should have
  rtt_usec INTEGER,              -- NULL: timed out
  answer INTEGER,                -- name: kind of the answer; NULL: timed out
  PRIMARY KEY(run, time_usec, sequence)) WITHOUT ROWID;
CREATE TABLE batch(
  run INTEGER NOT NULL, time_usec INTEGER NOT NULL, number INTEGER NOT NULL,
  bad INTEGER NOT NULL, received INTEGER NOT NULL, size INTEGER NOT NULL,
  rate_kbps INTEGER, buffer_usec INTEGER,                             -- NULL: one packet or none came
  PRIMARY KEY(run, time_usec, number)) WITHOUT ROWID;
CREATE TABLE rate(                                                    -- running bitrate (-A)
  run INTEGER NOT NULL, time_usec INTEGER NOT NULL,
  rate_kbps INTEGER, sent INTEGER, received INTEGER, missing INTEGER, late INTEGER, lost INTEGER);
CREATE TABLE message(run INTEGER NOT NULL, time_usec INTEGER NOT NULL, text TEXT NOT NULL);
{PACKET_TABLE};
"""

KEPT = "start_usec, end_usec, every_usec, site, label, command, asked, target, last_target, trace, status, " \
       "duration_usec, sent, received, min_usec, max_usec, mean_usec"
TO_VERSION_2 = f"""
CREATE TABLE run_2({RUN_COLUMNS});
INSERT INTO run_2(id, {KEPT}) SELECT id, {KEPT} FROM run;
DROP TABLE run;
ALTER TABLE run_2 RENAME TO run;
{PACKET_TABLE};
PRAGMA user_version = {VERSION};
"""


@dataclasses.dataclass
class Store:
    path: str
    db: sqlite3.Connection
    names: dict[str, int] = dataclasses.field(default_factory=dict)  # ids of those that are committed


# --- opening ---

def open_to_write(path: str) -> Store:
    """The store at `path`, made when there is none. Raises Unreadable when it is something else, which stays as it
    is."""
    if not path:  # SQLite's name for a file that is gone when it is closed
        raise Unreadable("''", None, "a file of records needs a name")
    try:
        if os.path.exists(path) and os.path.getsize(path):
            close(open_to_read(path))
        db = sqlite3.connect(path, timeout=5, isolation_level=None)
    except (OSError, sqlite3.Error) as error:
        raise Unreadable(path, None, str(error)) from None
    try:
        db.row_factory = sqlite3.Row
        db.execute("PRAGMA journal_mode = WAL")
        db.execute("PRAGMA synchronous = FULL")
        db.execute("BEGIN IMMEDIATE")
        if db.execute("SELECT count(*) FROM sqlite_master").fetchone()[0] == 0:
            execute_all(db, SCHEMA)
        elif version_of(path, db) < VERSION:
            execute_all(db, TO_VERSION_2)
        db.execute("COMMIT")
    except (sqlite3.Error, Unreadable) as error:
        db.close()
        raise error if isinstance(error, Unreadable) else Unreadable(path, None, str(error)) from None
    return Store(path, db)


def execute_all(db: sqlite3.Connection, statements: str) -> None:
    """One by one: executescript would commit first."""
    for statement in statements.split(";\n"):
        db.execute(statement)


def open_to_read(path: str) -> Store:
    """The store at `path`, which stays as it is. Raises Unreadable when it is none."""
    uri = "file:" + os.path.abspath(path).replace("%", "%25").replace("?", "%3f").replace("#", "%23")
    # A directory in which nothing may be written holds a store that nobody writes to, or one with its log.
    modes = ["?mode=ro"] + ["?immutable=1"] * (os.access(path, os.R_OK) and not os.path.exists(path + "-wal"))
    for mode in modes:
        db = None
        try:
            db = sqlite3.connect(uri + mode, uri=True, timeout=5, isolation_level=None)
            db.row_factory = sqlite3.Row
            version_of(path, db)
            return Store(path, db)
        except (sqlite3.Error, Unreadable) as error:
            if db:
                db.close()
            if mode == modes[-1] or not isinstance(error, sqlite3.OperationalError):
                raise error if isinstance(error, Unreadable) else Unreadable(path, None, str(error)) from None
    raise AssertionError("the last way returns or raises")


def version_of(path: str, db: sqlite3.Connection) -> int:
    application, = db.execute("PRAGMA application_id").fetchone()
    version, = db.execute("PRAGMA user_version").fetchone()
    if application != APPLICATION_ID:
        raise Unreadable(path, None, "a database, but not one of vorn-record")
    if not OLDEST_VERSION <= version <= VERSION:
        raise Unreadable(path, None, f"records of version {version}; this program reads version {VERSION}")
    return int(version)


def close(store: Store) -> None:
    with contextlib.suppress(sqlite3.Error):  # the log is put into place by whoever opens the store next
        store.db.close()


@contextlib.contextmanager
def reading(path: str) -> Iterator[Store]:
    store = open_to_read(path)
    try:
        yield store
    finally:
        close(store)


# --- writing ---

Result = TypeVar("Result")


def write(store: Store, work: Callable[[Store], Result]) -> Result:
    """Calls work(store) in one transaction; on an error nothing of it remains, and sqlite3.Error goes on up."""
    known = dict(store.names)
    try:
        store.db.execute("BEGIN IMMEDIATE")
        result = work(store)
        store.db.execute("COMMIT")
        return result
    except BaseException:
        store.names = known
        if store.db.in_transaction:
            store.db.execute("ROLLBACK")
        raise


def name_id(store: Store, text: str | None) -> int | None:
    if text is None:
        return None
    if text not in store.names:
        store.db.execute("INSERT OR IGNORE INTO name(text) VALUES(?)", (text,))
        store.names[text], = store.db.execute("SELECT id FROM name WHERE text = ?", (text,)).fetchone()
    return store.names[text]


def begin_run(store: Store, command: Sequence[str], start_usec: int, site: str, label: str = "",
              every_usec: int | None = None) -> int:
    """A new run of `command`, whose first item is the program; its id. Inside `write`."""
    cursor = store.db.execute(
        "INSERT INTO run(start_usec, every_usec, site, label, command, asked, trace) VALUES(?, ?, ?, ?, ?, ?, ?)",
        (start_usec, every_usec, site, label, json.dumps(command), hosts_of(command[1:]), is_trace(command[1:])))
    assert cursor.lastrowid is not None
    return cursor.lastrowid


def end_run(store: Store, run: int, end_usec: int, status: int | None) -> None:
    """Inside `write`; `status` as subprocess gives it. A clock that was set back ends no run before it starts."""
    store.db.execute("UPDATE run SET end_usec = max(start_usec, ?), status = ? WHERE id = ?", (end_usec, status, run))


def scaled(value: float | None, factor: int) -> int | None:
    return None if value is None else round(value * factor)


def append(store: Store, run: int, time_usec: int, record: Record) -> None:
    """Keeps one record of `run`, if it is of a kind that is kept. Inside `write`."""
    execute = store.db.execute
    if isinstance(record, Request):
        execute("INSERT OR IGNORE INTO echo VALUES(?, ?, ?, ?, ?, ?)",
                (run, time_usec, record.sequence, name_id(store, record.host), record.rtt_usec,
                 name_id(store, record.answer or None)))
    elif isinstance(record, StreamPacket):
        execute("INSERT INTO packet VALUES(?, ?, ?, ?, ?)",
                (run, time_usec, record.batch, record.sequence, record.gap_usec))
    elif isinstance(record, Batch):
        execute("INSERT OR IGNORE INTO batch VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
                (run, time_usec, record.number, record.bad, record.received, record.size,
                 scaled(record.rate, 1000), scaled(record.buffer, 1000)))
    elif isinstance(record, RunningRate):
        execute("INSERT INTO rate VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
                (run, time_usec, scaled(record.rate, 1000), record.sent, record.received, record.missing, record.late,
                 record.lost))
    elif isinstance(record, Destination):
        execute("UPDATE run SET target = ?, last_target = ? WHERE id = ?",
                (name_id(store, record.first), name_id(store, record.last), run))
    elif isinstance(record, Totals):
        execute("UPDATE run SET duration_usec = ?, sent = ?, received = ? WHERE id = ?",
                (record.duration_usec, record.sent, record.received, run))
    elif isinstance(record, Extremes):
        execute("UPDATE run SET min_usec = ?, max_usec = ?, mean_usec = ? WHERE id = ?",
                (record.min_usec, record.max_usec, record.mean_usec, run))
    elif isinstance(record, Completed):
        execute("UPDATE run SET duration_usec = ? WHERE id = ?", (record.duration_usec, run))
    elif isinstance(record, Message) and record.trouble:
        execute("INSERT INTO message VALUES(?, ?, ?)", (run, time_usec, record.text))


TABLES = ("echo", "batch", "rate", "message", "packet")


def prune(store: Store, before_usec: int) -> int:
    """Forgets what was measured before, and the runs of which nothing is left; how many rows. The file shrinks."""
    def forget(target: Store) -> int:
        rows = sum(target.db.execute(f"DELETE FROM {table} WHERE time_usec < ?", (before_usec,)).rowcount
                   for table in TABLES)
        some = " OR ".join(f"EXISTS(SELECT 1 FROM {table} WHERE run = run.id)" for table in TABLES if table != "rate")
        target.db.execute(f"DELETE FROM run WHERE coalesce(end_usec, start_usec) < ? AND NOT ({some})", (before_usec,))
        return rows
    rows = write(store, forget)
    store.db.execute("VACUUM")
    store.db.execute("PRAGMA wal_checkpoint(TRUNCATE)")
    return rows
