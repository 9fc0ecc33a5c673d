# SPDX-License-Identifier: MIT
"""vorn-record: runs the program and keeps what it prints, each line with the time of its arrival."""

import argparse
import dataclasses
import json
import os
import select
import signal
import socket
import sqlite3
import sys
import time

from vorn_companions import program as run
from vorn_companions.read import lines
from vorn_companions.store import database as store
from vorn_companions.read.records import Batch, Message, MonitorLocked, Request, StreamPacket
from vorn_companions.words import Unreadable, printable

COMMIT_SEC = 1.0
MOST_PENDING = 1_000_000  # lines that wait for room on the disk
DEFAULT_FILE = "vorn.db"


def say(text):
    print(f"vorn-record: {printable(text)}", file=sys.stderr, flush=True)


# --- where records go ---

class StoreSink:
    """Keeps records in a store. While it cannot be written, records wait and every transaction is tried again."""

    def __init__(self, path):
        self.store = store.open_to_write(path)
        self.pending = []  # functions of the store, in order; what they do is undone when one fails
        self.lines = 0  # among them
        self.trouble = None

    def begin(self, command, options, time_usec):
        handle = {}

        def insert(target):
            every = None if options.every is None else round(options.every * 1e6)
            handle["id"] = store.begin_run(target, command, time_usec, options.site, options.label, every)
        self.pending.append(insert)
        return handle

    def keep(self, handle, stamped):
        def insert(target):
            for time_usec, record in stamped:
                store.append(target, handle["id"], time_usec, record)
        self.pending.append(insert)
        self.lines += len(stamped)

    def end(self, handle, time_usec, status):
        self.pending.append(lambda target: store.end_run(target, handle["id"], time_usec, status))

    def write_pending(self, target):
        for work in self.pending:
            work(target)

    def commit(self):
        """False when too much waits."""
        try:
            store.write(self.store, self.write_pending)
        except sqlite3.Error as error:
            if self.trouble is None:
                say(f"{self.store.path}: {error}; trying again")
            self.trouble = str(error)
            return self.lines < MOST_PENDING
        if self.trouble is not None:
            say(f"{self.store.path}: written again, nothing is missing")
        self.trouble = None
        self.pending.clear()
        self.lines = 0
        return True

    def close(self):
        """True when all was kept."""
        self.commit()
        if self.trouble:
            say(f"{self.store.path}: {self.trouble}; the last {self.lines} lines are not kept")
        try:
            self.store.db.close()
        except sqlite3.Error:
            pass  # the log is put into place by whoever opens the store next
        return self.trouble is None


class JsonSink:
    """Prints records as JSON lines, each as soon as it arrives."""

    def __init__(self):
        self.runs = 0
        self.pending = []
        self.failed = False

    def print(self, run_number, time_usec, kind, fields):
        self.pending.append(json.dumps({"time": time_usec / 1e6, "run": run_number, "kind": kind, **fields}) + "\n")

    def begin(self, command, options, time_usec):
        self.runs += 1
        self.print(self.runs, time_usec, "run", {"command": command, "site": options.site, "label": options.label})
        return self.runs

    def keep(self, handle, stamped):
        for time_usec, record in stamped:
            fields = {field.name: getattr(record, field.name) for field in dataclasses.fields(record)}
            self.print(handle, time_usec, type(record).__name__.lower(), fields)

    def end(self, handle, time_usec, status):
        self.print(handle, time_usec, "end", {"status": status})

    def commit(self):
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

    def close(self):
        return self.commit()


# --- one run ---

@dataclasses.dataclass
class Tally:
    runs: int = 0
    failed: int = 0
    requests: int = 0
    lost: int = 0
    batches: int = 0
    bad: int = 0

    def count(self, record):
        if isinstance(record, Request):
            self.requests += 1
            self.lost += not record.answer
        elif isinstance(record, Batch):
            self.batches += 1
            self.bad += record.bad


def record_of(text, monitor):
    """The record of a line; what is not understood is a Message, and reported."""
    if text is None:
        record = Message("the last line is cut off", True)
    else:
        record = lines.record_of(text) or Message(f"not understood: {printable(text.strip())}", True)
    if monitor and isinstance(record, Request):  # its times are gaps between packets
        return StreamPacket(None, record.sequence, record.rtt_usec, record.host)
    if isinstance(record, Message) and (record.trouble or record.text.startswith("So far: ")):
        say(record.text)
    return record


def record_run(sink, command, options, stop, tally):
    """Runs the program once to its end; False when what it prints cannot be kept any more."""
    handle = sink.begin(command, options, run.now_usec())
    process = run.start(command)
    stop.process = process
    if stop.signal:  # it came before there was a process
        run.forward(process, stop.signal)
    monitor = False
    room = True
    for arrived in run.arrivals(process.stdout, COMMIT_SEC if isinstance(sink, StoreSink) else 0.0):
        stamped = []
        for time_usec, text in arrived:
            record = record_of(text, monitor)
            monitor = monitor or isinstance(record, MonitorLocked)
            tally.count(record)
            if not isinstance(record, Message) or record.trouble:
                stamped.append((time_usec, record))
        sink.keep(handle, stamped)
        if not sink.commit() and room:
            room = False
            run.forward(process, signal.SIGTERM)
    status = process.wait()
    stop.process = None
    sink.end(handle, run.now_usec(), status)
    tally.runs += 1
    tally.failed += status != 0 and not stop.signal
    return room and sink.commit()


# --- stopping, and the time between runs ---

class Stop:
    """What signals ask. They go on to the program, which ends properly at the first and at once at the second."""

    def __init__(self):
        self.signal = None
        self.process = None
        self.wake, wakes = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        signal.set_wakeup_fd(wakes, warn_on_full_buffer=False)
        for number in run.STOP_SIGNALS:
            if signal.getsignal(number) != signal.SIG_IGN:
                signal.signal(number, self.on_stop)
        signal.signal(signal.SIGQUIT, self.on_question)

    def on_stop(self, number, _frame):
        self.signal = number
        if self.process:
            run.forward(self.process, number)

    def on_question(self, number, _frame):
        if self.process:
            run.forward(self.process, number)

    def pause(self, seconds):
        """Sleeps, but not through a signal that stops."""
        end = time.monotonic() + seconds
        while not self.signal and (left := end - time.monotonic()) > 0:
            if select.select([self.wake], [], [], left)[0]:
                os.read(self.wake, 512)

    def leave(self):
        """Ends this process by the signal, so that shells see it."""
        if self.signal:
            signal.signal(self.signal, signal.SIG_DFL)
            os.kill(os.getpid(), self.signal)


def record_runs(sink, command, options, stop, tally):
    begin = time.monotonic()
    while not stop.signal:
        if not record_run(sink, command, options, stop, tally):
            return
        if tally.runs == options.count or tally.runs == tally.failed == 1:
            return  # whatever makes the first run fail will make all fail
        if options.every:  # starts that a long run has passed over are left out
            passed = time.monotonic() - begin
            stop.pause((passed // options.every + 1) * options.every - passed)


# --- command line ---

def positive(convert):
    def read(text):
        value = convert(text)
        if not 0 < value < 1e9:
            raise ValueError
        return value
    read.__name__ = f"positive {'whole ' if convert is int else ''}number"
    return read


def parse_arguments(arguments):
    own, rest = run.split_arguments(arguments)
    parser = argparse.ArgumentParser(
        prog="vorn-record", allow_abbrev=False, usage="%(prog)s [options] -- VORN-ARGUMENTS",
        description="Run vorn and keep what it measures, each line with the time of its arrival.",
        epilog="Example: vorn-record -o lan.db --label office -- -e -d1000000 10.0.0.1")
    parser.add_argument("-o", dest="output", metavar="FILE", default=DEFAULT_FILE,
                        help=f"the file that is appended to ({DEFAULT_FILE}); - prints JSON lines")
    parser.add_argument("--every", type=positive(float), metavar="SECONDS", help="start a run this often")
    parser.add_argument("--count", type=positive(int), metavar="N",
                        help="that many runs (1; with --every until stopped)")
    parser.add_argument("--label", default="", metavar="NAME", help="a name for these runs, to choose them by")
    options, unknown = parser.parse_known_args(own)
    if unknown and "--" in arguments:
        parser.error(f"unknown: {' '.join(unknown)}")
    if not rest:
        parser.error("what vorn is to do stands behind --, for example: -- -e100 10.0.0.1")
    options.count = options.count or (None if options.every else 1)
    options.site = socket.gethostname()
    return options, rest


def summary(tally, place):
    requests = f"{tally.requests} requests, {tally.lost} without an answer" if tally.requests else ""
    batches = f"{tally.batches} batches, {tally.bad} bad" if tally.batches else ""
    figures = "; ".join(filter(None, (requests, batches))) or "no request and no batch"
    return f"{tally.runs} run{'s' * (tally.runs != 1)}, {figures}; in {place}"


def main(arguments=None):
    options, rest = parse_arguments(sys.argv[1:] if arguments is None else arguments)
    program = run.find_program()
    if program is None:
        sys.exit("vorn-record: there is no vorn in PATH; VORN can name it")
    stop = Stop()
    tally = Tally()
    try:
        sink = JsonSink() if options.output == "-" else StoreSink(options.output)
    except Unreadable as error:
        sys.exit(f"vorn-record: {error}")
    try:
        record_runs(sink, [program, *rest], options, stop, tally)
    except OSError as error:
        tally.failed += 1
        say(f"{program}: {error.strerror}")
    kept = sink.close()
    if options.output != "-":
        say(summary(tally, options.output))
    stop.leave()
    return 0 if kept and not tally.failed else 1


if __name__ == "__main__":
    sys.exit(main())
