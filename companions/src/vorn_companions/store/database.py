# SPDX-License-Identifier: MIT
"""Records on disk: one SQLite file that grows by whole transactions and can be read while it grows.

Write-ahead log with a sync at each commit: what was committed survives a kill, a crash and a power cut. Times are
microseconds since 1970 (UTC), when the line arrived. The largest table, `echo`, has its key as its only tree: about
26 bytes a request.
"""

import dataclasses
import json
import os
import sqlite3
import uuid

from vorn_companions.read.records import (REPLY, Batch, Completed, Destination, Extremes, Message, Request, RunningRate, Totals)
from vorn_companions.words import Unreadable

APPLICATION_ID = 0x566F726E
VERSION = 1

SCHEMA = f"""
PRAGMA application_id = {APPLICATION_ID};
PRAGMA user_version = {VERSION};
-- Addresses and kinds of answers. 0 is an echo reply: no byte in a row.
CREATE TABLE name(id INTEGER PRIMARY KEY, text TEXT NOT NULL UNIQUE);
INSERT INTO name VALUES(0, '{REPLY}');
CREATE TABLE run(
  id INTEGER PRIMARY KEY,
  uid TEXT NOT NULL UNIQUE,      -- the same in every copy
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
  min_usec INTEGER, max_usec INTEGER, mean_usec INTEGER);
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
"""


@dataclasses.dataclass
class Store:
    path: str
    db: sqlite3.Connection
    names: dict = dataclasses.field(default_factory=dict)  # text: id, of those that are committed


@dataclasses.dataclass
class StoredRun:
    """A row of `run`, its names as text."""

    id: int
    start_usec: int
    end_usec: int | None
    every_usec: int | None
    site: str
    label: str
    command: list
    asked: str
    target: str | None
    last_target: str | None
    trace: bool
    status: int | None
    duration_usec: int | None
    sent: int | None
    received: int | None
    min_usec: int | None
    max_usec: int | None
    mean_usec: int | None


@dataclasses.dataclass
class Selection:
    """Which records to take; None takes all. A host is an address, or the name that the program was given."""

    since_usec: int | None = None
    until_usec: int | None = None
    host: str | None = None
    label: str | None = None
    site: str | None = None


# --- opening ---

def open_to_write(path):
    """The store at `path`, made when there is none. Raises Unreadable when it is something else."""
    db = None
    try:
        db = sqlite3.connect(path, timeout=5, isolation_level=None)
        db.execute("PRAGMA journal_mode = WAL")
        db.execute("PRAGMA synchronous = FULL")
        db.execute("BEGIN IMMEDIATE")
        if db.execute("SELECT count(*) FROM sqlite_master").fetchone()[0] == 0:
            for statement in SCHEMA.split(";\n"):
                db.execute(statement)
        db.execute("COMMIT")
        check_version(path, db)
    except sqlite3.Error as error:
        if db:
            db.close()
        raise Unreadable(path, None, str(error)) from None
    return Store(path, db)


def open_to_read(path):
    """The store at `path`, which stays as it is. Raises Unreadable when it is none."""
    uri = "file:" + os.path.abspath(path).replace("%", "%25").replace("?", "%3f").replace("#", "%23")
    # A directory in which nothing may be written holds a store that nobody writes to, or one with its log.
    for mode in ("?mode=ro", "?immutable=1"):
        db = None
        try:
            db = sqlite3.connect(uri + mode, uri=True, timeout=5, isolation_level=None)
            check_version(path, db)
            return Store(path, db)
        except sqlite3.OperationalError as error:
            if db:
                db.close()
            if mode != "?mode=ro" or os.path.exists(path + "-wal") or not os.access(path, os.R_OK):
                raise Unreadable(path, None, str(error)) from None
        except sqlite3.Error as error:
            raise Unreadable(path, None, str(error)) from None
    raise AssertionError("one of the two ways returns or raises")


def check_version(path, db):
    application, = db.execute("PRAGMA application_id").fetchone()
    version, = db.execute("PRAGMA user_version").fetchone()
    if application != APPLICATION_ID:
        raise Unreadable(path, None, "a database, but not one of vorn-record")
    if version != VERSION:
        raise Unreadable(path, None, f"records of version {version}; this program reads version {VERSION}")


# --- writing ---

def write(store, work):
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


def name_id(store, text):
    if text is None:
        return None
    if text not in store.names:
        store.db.execute("INSERT OR IGNORE INTO name(text) VALUES(?)", (text,))
        store.names[text], = store.db.execute("SELECT id FROM name WHERE text = ?", (text,)).fetchone()
    return store.names[text]


def is_trace(arguments):
    """Whether these arguments of the program make a trace."""
    return any(word.startswith("-t") or len(word) > 2 and "--trace".startswith(word) for word in arguments)


def begin_run(store, command, start_usec, site, label="", every_usec=None):
    """A new run of `command`, a list whose first item is the program; its id. Inside `write`."""
    hosts = [word for word in command[1:] if not word.startswith("-")]
    cursor = store.db.execute(
        "INSERT INTO run(uid, start_usec, every_usec, site, label, command, asked, trace) "
        "VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
        (uuid.uuid4().hex, start_usec, every_usec, site, label, json.dumps(command), " ".join(hosts),
         is_trace(command[1:])))
    return cursor.lastrowid


def end_run(store, run, end_usec, status):
    """Inside `write`; `status` as subprocess gives it."""
    store.db.execute("UPDATE run SET end_usec = ?, status = ? WHERE id = ?", (end_usec, status, run))


def scaled(value, factor):
    return None if value is None else round(value * factor)


def append(store, run, time_usec, record):
    """Keeps one record of `run`, if it is of a kind that is kept. Inside `write`."""
    execute = store.db.execute
    if isinstance(record, Request):
        execute("INSERT OR IGNORE INTO echo VALUES(?, ?, ?, ?, ?, ?)",
                (run, time_usec, record.sequence, name_id(store, record.host), record.rtt_usec,
                 name_id(store, record.answer or None)))
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


def merge(store, other_path):
    """Copies the runs of another store that this one has not, or not the end of; how many. Not in `write`."""
    open_to_read(other_path).db.close()
    store.db.execute("ATTACH ? AS other", (other_path,))
    try:
        return write(store, copy_runs)
    finally:
        store.db.execute("DETACH other")


def copy_runs(store):
    execute = store.db.execute
    execute("INSERT OR IGNORE INTO name(text) SELECT text FROM other.name")
    execute("CREATE TEMP TABLE IF NOT EXISTS name_of(old INTEGER PRIMARY KEY, new INTEGER)")
    execute("DELETE FROM name_of")
    execute("INSERT INTO name_of SELECT o.id, n.id FROM other.name o JOIN main.name n USING(text)")
    columns = "uid, start_usec, end_usec, every_usec, site, label, command, asked"
    more = "trace, status, duration_usec, sent, received, min_usec, max_usec, mean_usec"
    copied = 0
    for old, uid in execute("SELECT id, uid FROM other.run ORDER BY id").fetchall():
        known = execute("SELECT id, end_usec FROM main.run WHERE uid = ?", (uid,)).fetchone()
        if known and known[1] is not None:
            continue
        if known:
            forget_run(store, known[0])
        new = execute(
            f"INSERT INTO main.run({columns}, target, last_target, {more}) SELECT {columns}, "
            "(SELECT new FROM name_of WHERE old = target), (SELECT new FROM name_of WHERE old = last_target), "
            f"{more} FROM other.run WHERE id = ?", (old,)).lastrowid
        execute("INSERT INTO main.echo SELECT ?, time_usec, sequence, h.new, rtt_usec, a.new FROM other.echo "
                "JOIN name_of h ON h.old = host LEFT JOIN name_of a ON a.old = answer WHERE run = ?", (new, old))
        execute("INSERT INTO main.batch SELECT ?, time_usec, number, bad, received, size, rate_kbps, buffer_usec "
                "FROM other.batch WHERE run = ?", (new, old))
        execute("INSERT INTO main.rate SELECT ?, time_usec, rate_kbps, sent, received, missing, late, lost "
                "FROM other.rate WHERE run = ?", (new, old))
        execute("INSERT INTO main.message SELECT ?, time_usec, text FROM other.message WHERE run = ?", (new, old))
        copied += 1
    return copied


def forget_run(store, run):
    for table, key in (("echo", "run"), ("batch", "run"), ("rate", "run"), ("message", "run"), ("run", "id")):
        store.db.execute(f"DELETE FROM main.{table} WHERE {key} = ?", (run,))


# --- reading ---

def conditions(selection, host_columns, time_column):
    """SQL and its values for a Selection; the table of runs is `r`."""
    parts, values = ["1"], []
    for value, test in ((selection.since_usec, f"{time_column} >= ?"), (selection.until_usec, f"{time_column} < ?"),
                        (selection.label, "r.label = ?"), (selection.site, "r.site = ?")):
        if value is not None:
            parts.append(test)
            values.append(value)
    if selection.host is not None:
        parts.append("(r.asked = ? OR " + " OR ".join(
            f"{column} = (SELECT id FROM name WHERE text = ?)" for column in host_columns) + ")")
        values += [selection.host] * (1 + len(host_columns))
    return " AND ".join(parts), values


def runs(store, selection=Selection()):
    """The StoredRuns that started in the time of the selection, oldest first."""
    where, values = conditions(selection, ["r.target"], "r.start_usec")
    rows = store.db.execute(
        "SELECT r.id, start_usec, end_usec, every_usec, site, label, command, asked, t.text, l.text, trace, status, "
        "duration_usec, sent, received, min_usec, max_usec, mean_usec FROM run r LEFT JOIN name t ON t.id = r.target "
        f"LEFT JOIN name l ON l.id = r.last_target WHERE {where} ORDER BY start_usec, r.id", values)
    return [StoredRun(*row[:6], json.loads(row[6]), *row[7:10], bool(row[10]), *row[11:]) for row in rows]


def name_texts(store):
    """{id: text} of addresses and kinds of answers."""
    return dict(store.db.execute("SELECT id, text FROM name"))


# Whom an answer tells of: an error about a request, outside a trace, tells that its destination was not reached.
IS_ANSWER = "(e.answer = 0 OR (r.trace AND e.answer IS NOT NULL))"
MEASURED_HOST = f"(CASE WHEN {IS_ANSWER} OR e.answer IS NULL OR r.last_target IS NOT NULL THEN e.host " \
                "ELSE ifnull(r.target, e.host) END)"


def echo_rows(store, selection=Selection()):
    """A cursor over (time_usec, rtt_usec, run, host) in the order of runs and time; rtt_usec is -1 for what was lost.

    Lost are time-outs and, outside traces, ICMP errors: they count against the run's destination. `host` is a key of
    `name_texts`.
    """
    columns = f"e.time_usec, CASE WHEN {IS_ANSWER} THEN ifnull(e.rtt_usec, -1) ELSE -1 END, e.run, {MEASURED_HOST}"
    return select_echoes(store, selection, columns)


def echo_numbers(store, selection, origin_usec, unit_usec):
    """As echo_rows, in two numbers: the fewer, the faster they are read.

    The first is time << 32 | round trip, time in whole units since the origin, at most 2147483647, the round trip as
    1 + usec, 0 for what was lost. The second is run << 32 | host.
    """
    usec = "CASE WHEN e.rtt_usec >= 0 THEN e.rtt_usec + 1 ELSE e.rtt_usec < 0 END"
    trip = f"CASE WHEN {IS_ANSWER} THEN {usec} ELSE 0 END"
    time = f"(e.time_usec - {origin_usec}) / {unit_usec}"
    return select_echoes(store, selection, f"{time} << 32 | ifnull({trip}, 0), e.run << 32 | {MEASURED_HOST}")


def select_echoes(store, selection, columns):
    where, values = conditions(selection, ["e.host", "r.target"], "e.time_usec")
    return store.db.execute(f"SELECT {columns} FROM run r CROSS JOIN echo e ON e.run = r.id WHERE {where} "
                            "ORDER BY r.id, e.time_usec", values)


def batch_rows(store, selection=Selection()):
    """A cursor over (time_usec, rate_kbps, buffer_usec, bad, received, size, run) in the order of runs and time."""
    where, values = conditions(selection, ["r.target"], "b.time_usec")
    return store.db.execute(
        "SELECT b.time_usec, b.rate_kbps, b.buffer_usec, b.bad, b.received, b.size, b.run "
        f"FROM run r CROSS JOIN batch b ON b.run = r.id WHERE {where} ORDER BY r.id, b.time_usec", values)


def messages(store, run):
    """[(time_usec, text)] of the errors, warnings and notes of a run."""
    return store.db.execute("SELECT time_usec, text FROM message WHERE run = ? ORDER BY rowid", (run,)).fetchall()
