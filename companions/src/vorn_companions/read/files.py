# SPDX-License-Identifier: MIT
"""Files and pipes to Sources: results files, histogram files, saved output, records of vorn-record."""

import os
import signal
import time
from collections.abc import Sequence

from vorn_companions.read import lines, tables
from vorn_companions.read.records import (Batch, Completed, DataRate, Destination, EchoRun, Extremes, MonitorLocked,
                                          Request, RunningRate, Sources, StreamPacket, StreamRun, Totals)
from vorn_companions.signals import Stop
from vorn_companions.words import Unreadable, excerpt, printable

# Fields of Sources.
KINDS = {
    "results": "a results file",
    "histograms": "a histogram file",
    "streams": "saved --client output",
    "echoes": "saved echo-mode output",
    "stores": "a file of records",
}

STORE_MAGIC = b"SQLite format 3\0"


# --- tables ---

def read_table(into: Sources, path: str, texts: Sequence[str], cut: bool) -> None:
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
            kind = found or ("results" if "." in fields[-1] else "histograms")
        elif found not in (None, kind):
            raise Unreadable(path, line, f"the header of {KINDS[found]} inside {KINDS[kind]}")
        if is_cut and not tables.is_whole(text, kind):
            notes.append(f"{path}:{line}: the last row is cut off, after '{printable(text)[-20:]}'")
        elif found is None:
            rows.append(tables.read_row(path, line, fields, separator, kind))
    if not rows:
        reason = "no whole row" if notes else "a header without a row: no test has ended yet"
        raise Unreadable(path, 1, "; ".join([reason, *notes]))
    getattr(into, str(kind)).extend(rows)
    into.notes += notes


# --- saved output ---

class OutputReader:
    """Lines of saved output to runs, one line at a time. Numbers that start again start a new run."""

    def __init__(self, path: str) -> None:
        self.path = path
        self.streams: list[StreamRun] = []
        self.echoes: list[EchoRun] = []
        self.packets: list[StreamPacket] = []  # of the batch that comes next
        self.notes: list[str] = []
        self.towards: Destination | None = None  # of the run whose lines come next
        self.seen: set[type] = set()  # types of all records

    def take(self, line: int, text: str, cut: bool = False) -> None:
        record = lines.record_of(text)
        if isinstance(record, MonitorLocked):
            raise Unreadable(self.path, line,
                             "the output of a monitor: its times are gaps between packets, not round trips")
        if cut and (record is None or isinstance(record, (Batch, Request, StreamPacket))):
            # What no newline ends may have lost its last digits: the times would be right, the address not.
            self.notes.append(f"{self.path}:{line}: the last line is cut off: '{excerpt(text)}'")
        elif record is None and lines.is_damaged(text):
            raise Unreadable(self.path, line, f"a damaged line: '{excerpt(text)}'")
        elif record is None:
            self.notes.append(f"{self.path}:{line}: not understood: '{excerpt(text)}'")
        elif isinstance(record, StreamPacket):
            self.packets.append(record)
        elif isinstance(record, Batch):
            self.add_batch(line, record)
        elif isinstance(record, Request):
            self.add_request(line, record)
        elif isinstance(record, Totals) and self.echoes:
            self.echoes[-1].sent = record.sent
        elif isinstance(record, Destination):
            self.towards = record
        self.seen.add(type(record))

    def refuse_both(self, line: int, found: str, before: str) -> None:
        raise Unreadable(self.path, line, f"a line of {KINDS[found]} inside {KINDS[before]}")

    def add_batch(self, line: int, batch: Batch) -> None:
        if self.echoes:
            self.refuse_both(line, "streams", "echoes")
        if not self.streams or batch.number <= self.streams[-1].batches[-1].number:
            self.streams.append(StreamRun(self.path, [], []))
        self.streams[-1].batches.append(batch)
        self.streams[-1].packets += self.packets
        self.packets = []

    def add_request(self, line: int, request: Request) -> None:
        if self.streams:
            self.refuse_both(line, "echoes", "streams")
        if not self.echoes or request.sequence <= self.echoes[-1].requests[-1].sequence:
            towards = self.towards
            self.echoes.append(EchoRun(self.path, [], first=towards.first if towards else None,
                                       last=towards.last if towards else None))
            self.towards = None
        self.echoes[-1].requests.append(request)

    def finish(self, into: Sources) -> None:
        runs: Sequence[StreamRun | EchoRun] = self.streams or self.echoes
        if not runs:
            raise Unreadable(self.path, 1, "; ".join([self.no_lines_reason()] + self.notes[:1]))
        name = printable(os.path.basename(self.path))
        for number, run in enumerate(runs, 1):
            run.label = name + (f" run {number}" if len(runs) > 1 else "")
        for echo in self.echoes:
            echo.sent = max(echo.sent, echo.requests[-1].sequence + 1)
        into.streams += self.streams
        into.echoes += self.echoes
        into.notes += self.notes

    def no_lines_reason(self) -> str:
        if Completed in self.seen:
            return "no line for any batch (-Q leaves them out)"
        if self.seen & {RunningRate, Totals, DataRate, Extremes}:
            return "no line for any request (-s leaves them out)"
        return "neither a results file, nor a histogram file, nor output with lines for batches or requests"


def read_output(into: Sources, path: str, texts: Sequence[str], cut: bool) -> None:
    reader = OutputReader(path)
    for line, text in enumerate(texts, 1):
        reader.take(line, text, cut and line == len(texts))
    reader.finish(into)


# --- where it comes from ---

LAST_WORDS_SEC = 2.0  # what Ctrl-C leaves to the program in front of the pipe for its summary
SILENCE_SEC = 0.5


def read_pipe(descriptor: int) -> bytes:
    """All bytes up to the end. Ctrl-C ends the input, not this program: whoever presses it wants the figures so far."""
    chunks = []
    stop_by = None
    with Stop([signal.SIGINT]) as stop:
        while stop_by is None or time.monotonic() < stop_by:
            ready = stop.readable(descriptor, None if stop_by is None else SILENCE_SEC)
            if ready and (data := os.read(descriptor, 1 << 16)):
                chunks.append(data)
            elif ready or stop_by is not None:
                break
            if stop.signal and stop_by is None:
                stop_by = time.monotonic() + LAST_WORDS_SEC
    return b"".join(chunks)


def read_source(into: Sources, path: str) -> str:
    """Adds a file, "-" is standard input; the field of `into` it went to. Raises Unreadable, or OSError when there is
    no such file."""
    shown = printable("standard input" if path == "-" else path)
    before = {kind: len(getattr(into, kind)) for kind in KINDS}
    if path == "-":
        data = read_pipe(0)
    else:
        with open(path, "rb") as stream:
            data = stream.read(len(STORE_MAGIC))
            if data == STORE_MAGIC:
                into.stores.append(path)
                return "stores"
            data += stream.read()
    texts = [text.rstrip("\r") for text in data.decode("utf-8-sig", errors="replace").split("\n")]
    cut = texts[-1] != ""
    if not cut:
        texts.pop()
    first = next((text for text in texts if text.strip()), None)
    if first is None:
        raise Unreadable(shown, 1, "empty: no test has written to it")
    (read_table if tables.TABLE_LINE.match(first) else read_output)(into, shown, texts, cut)
    return next(kind for kind in KINDS if len(getattr(into, kind)) > before[kind])
