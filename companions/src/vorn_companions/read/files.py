# SPDX-License-Identifier: MIT
"""Files and pipes to sources: results files, histogram files, saved output, records of vorn-record."""

import dataclasses
import os
import select
import signal
import time

from vorn_companions.read import lines, tables
from vorn_companions.read.records import (Batch, Completed, DataRate, Destination, Extremes, MonitorLocked, Request, Run,
                              RunningRate, Totals)
from vorn_companions.words import Unreadable, excerpt, printable

FILE_KINDS = {
    "results": "a results file",
    "histogram": "a histogram file",
    "client": "saved --client output",
    "echo": "saved echo-mode output",
    "store": "a file of records",
}

STORE_MAGIC = b"SQLite format 3\0"


@dataclasses.dataclass
class Source:
    path: str
    kind: str  # a key of FILE_KINDS
    items: list  # TestRow or Run; of a file of records its path
    notes: list = dataclasses.field(default_factory=list)  # "place: what" of each line that was not used


def read_table(path, texts, cut):
    """A results or histogram file. A file that existed empty before the first test has no header."""
    kind = None
    rows, notes = [], []
    for line, text in enumerate(texts, 1):
        if not text.strip():
            continue
        is_cut = cut and line == len(texts)
        if is_cut and kind and not tables.TABLE_LINE.match(text):
            notes.append(f"{path}:{line}: the last line is cut off: '{excerpt(text)}'")
            continue
        fields, separator = tables.split_fields(path, line, text)
        found = tables.header_kind(path, line, fields) if fields[0] == "Vorn Version" else None
        if kind is None:
            kind = found or ("results" if "." in fields[-1] else "histogram")
        elif found not in (None, kind):
            raise Unreadable(path, line, f"the header of {FILE_KINDS[found]} inside {FILE_KINDS[kind]}")
        if is_cut and not tables.is_whole(text, kind):
            notes.append(f"{path}:{line}: the last row is cut off, after '{printable(text)[-20:]}'")
        elif found is None:
            rows.append(tables.read_row(path, line, fields, separator, kind))
    if not rows:
        reason = "no whole row" if notes else "a header without a row: no test has ended yet"
        raise Unreadable(path, 1, "; ".join([reason, *notes]))
    return Source(path, kind, rows, notes)


def position(item):
    return item.number if isinstance(item, Batch) else item.sequence


class OutputReader:
    """Lines of saved output to runs, one line at a time."""

    def __init__(self, path):
        self.path = path
        self.kind = None
        self.runs = []
        self.notes = []
        self.destination = None  # of the run whose lines come next
        self.seen = set()  # types of all records

    def take(self, line, text, cut=False):
        record = lines.record_of(text)
        if isinstance(record, MonitorLocked):
            raise Unreadable(self.path, line,
                             "the output of a monitor: its times are gaps between packets, not round trips")
        found = "client" if isinstance(record, Batch) else "echo" if isinstance(record, Request) else None
        if cut and (found or record is None):
            # What no newline ends may have lost its last digits: the times would be right, the address not.
            self.notes.append(f"{self.path}:{line}: the last line is cut off: '{excerpt(text)}'")
        elif record is None and lines.is_damaged(text):
            raise Unreadable(self.path, line, f"a damaged line: '{excerpt(text)}'")
        elif record is None:
            self.notes.append(f"{self.path}:{line}: not understood: '{excerpt(text)}'")
        elif found:
            self.add(line, found, record)
        elif isinstance(record, Totals) and self.runs:
            self.runs[-1].sent = record.sent
        elif isinstance(record, Destination):
            self.destination = record
        self.seen.add(type(record))

    def add(self, line, found, record):
        if self.kind not in (None, found):
            raise Unreadable(self.path, line, f"a line of {FILE_KINDS[found]} inside {FILE_KINDS[self.kind]}")
        self.kind = found
        # Numbers that start again start a new run.
        if not self.runs or position(record) <= position(self.runs[-1].items[-1]):
            towards = self.destination or Destination(None, None)
            self.runs.append(Run(self.path, [], first=towards.first, last=towards.last))
            self.destination = None
        self.runs[-1].items.append(record)

    def finish(self):
        if not self.runs:
            raise Unreadable(self.path, 1, "; ".join([self.no_lines_reason()] + self.notes[:1]))
        name = printable(os.path.basename(self.path))
        for number, run in enumerate(self.runs, 1):
            run.sent = max(run.sent, position(run.items[-1]) + 1)
            run.label = name + (f" run {number}" if len(self.runs) > 1 else "")
        return Source(self.path, self.kind, self.runs, self.notes)

    def no_lines_reason(self):
        if Completed in self.seen:
            return "no line for any batch (-Q leaves them out)"
        if self.seen & {RunningRate, Totals, DataRate, Extremes}:
            return "no line for any request (-s leaves them out)"
        return "neither a results file, nor a histogram file, nor output with lines for batches or requests"


def read_output(path, texts, cut):
    reader = OutputReader(path)
    for line, text in enumerate(texts, 1):
        reader.take(line, text, cut and line == len(texts))
    return reader.finish()


LAST_WORDS_SEC = 2.0  # what Ctrl-C leaves to the program in front of the pipe for its summary
SILENCE_SEC = 0.5


def read_pipe(descriptor):
    """All bytes up to the end. Ctrl-C ends the input, not this program: whoever presses it wants the figures so far."""
    chunks = []
    stop_by = None
    wake, wakes = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    previous = signal.signal(signal.SIGINT, lambda number, frame: None)
    if previous == signal.SIG_IGN:
        signal.signal(signal.SIGINT, previous)
    woken = signal.set_wakeup_fd(wakes)
    try:
        while stop_by is None or time.monotonic() < stop_by:
            ready, _, _ = select.select([descriptor, wake], [], [], None if stop_by is None else SILENCE_SEC)
            if wake in ready:
                os.read(wake, 512)
                stop_by = time.monotonic() + LAST_WORDS_SEC
            elif ready and (data := os.read(descriptor, 1 << 16)):
                chunks.append(data)
            else:
                break
    finally:
        signal.set_wakeup_fd(woken)
        signal.signal(signal.SIGINT, previous)
        os.close(wake)
        os.close(wakes)
    return b"".join(chunks)


def read_source(path):
    """The Source of a file; "-" is standard input. Raises Unreadable, or OSError when there is no such file."""
    shown = printable("standard input" if path == "-" else path)
    if path == "-":
        data = read_pipe(0)
    else:
        with open(path, "rb") as stream:
            data = stream.read(len(STORE_MAGIC))
            if data == STORE_MAGIC:
                return Source(shown, "store", [path])
            data += stream.read()
    texts = [text.rstrip("\r") for text in data.decode("utf-8-sig", errors="replace").split("\n")]
    cut = texts[-1] != ""
    if not cut:
        texts.pop()
    first = next((text for text in texts if text.strip()), None)
    if first is None:
        raise Unreadable(shown, 1, "empty: no test has written to it")
    return (read_table if tables.TABLE_LINE.match(first) else read_output)(shown, texts, cut)
