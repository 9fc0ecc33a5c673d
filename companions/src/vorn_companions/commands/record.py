# SPDX-License-Identifier: MIT
"""vorn-record: runs the program and keeps what it prints, each line with the time of its arrival."""

import argparse
import dataclasses
import signal
import socket
import sqlite3
import sys
import time
from collections.abc import Callable, Sequence
from typing import TypeVar

from vorn_companions import program
from vorn_companions.commands.common import add_version, seconds_ago
from vorn_companions.commands.record_sinks import (FORMATS, Begin, End, Kept, LineSink, Sink, StoreSink, kept_records,
                                                   say)
from vorn_companions.read import lines
from vorn_companions.read.records import Batch, Message, MonitorLocked, Record, Request, StreamPacket
from vorn_companions.signals import STOP_SIGNALS, Stop
from vorn_companions.store import database
from vorn_companions.words import Unreadable, printable

DEFAULT_FILE = "vorn.db"
ENGAGED = "Engaging options: "
UNWRITTEN = 2  # the exit status


@dataclasses.dataclass(frozen=True)
class Wanted:
    """What to run, how often, and what to keep of it."""

    command: list[str]
    output: str
    shown: str  # of FORMATS, for standard output
    every_sec: float | None
    count: int | None
    label: str
    site: str
    packets: bool


# --- one run ---

@dataclasses.dataclass
class Tally:
    runs: int = 0
    failed: int = 0
    requests: int = 0
    lost: int = 0
    batches: int = 0
    bad: int = 0

    def count(self, record: Record) -> None:
        if isinstance(record, Request):
            self.requests += 1
            self.lost += not record.answer
        elif isinstance(record, Batch):
            self.batches += 1
            self.bad += record.bad


def record_of(text: str | None, monitor: bool) -> Record:
    """The record of a line; what is not understood is a Message, and reported."""
    if text is None:
        record: Record = Message("the last line is cut off", True)
    else:
        record = lines.record_of(text) or Message(f"not understood: {printable(text.strip())}", True)
    if monitor and isinstance(record, Request):  # its times are gaps between packets
        return StreamPacket(None, record.sequence, record.rtt_usec, record.host)
    if isinstance(record, Message) and (record.trouble or record.text.startswith("So far: ")):
        say(record.text)
    return record


def warn_of_hidden(record: Record, wanted: Wanted) -> None:
    if wanted.packets and isinstance(record, Message) and record.text.startswith(ENGAGED) and \
            program.hides_answers(record.text.removeprefix(ENGAGED).split()):
        say("--packets: the preset leaves packets out (-s), there are none to keep")


def record_run(sink: Sink, wanted: Wanted, stop: Stop, tally: Tally) -> bool:
    """Runs the program once to its end; False when what it prints cannot be kept any more."""
    tally.runs += 1
    sink.take(Begin(tally.runs, program.now_usec(), wanted.command, wanted.site, wanted.label,
                    None if wanted.every_sec is None else round(wanted.every_sec * 1e6)))
    process = program.start(wanted.command)
    stop.follow(process)
    monitor, room = False, True
    try:
        for arrived in program.arrivals(process, stop, sink.period_sec):
            stamped = []
            for time_usec, text in arrived:
                record = record_of(text, monitor)
                warn_of_hidden(record, wanted)
                monitor = monitor or isinstance(record, MonitorLocked)
                tally.count(record)
                stamped.append((time_usec, record))
            sink.take(Kept(tally.runs, kept_records(stamped, wanted.packets or monitor or wanted.output == "-")))
            if not sink.commit() and room:
                room = False
                if process.poll() is None:
                    process.send_signal(signal.SIGTERM)
        status = process.wait()
    finally:
        stop.follow(None)
        program.end(process)
    sink.take(End(tally.runs, program.now_usec(), status))
    tally.failed += status != 0 and not stop.signal
    return room and sink.commit()


def record_runs(sink: Sink, wanted: Wanted, stop: Stop, tally: Tally) -> None:
    begin = time.monotonic()
    while not stop.signal:
        if not record_run(sink, wanted, stop, tally):
            return
        if tally.runs == wanted.count or tally.runs == tally.failed == 1:
            return  # whatever makes the first run fail will make all fail
        if wanted.every_sec:  # starts that a long run has passed over are left out
            passed = time.monotonic() - begin
            stop.pause((passed // wanted.every_sec + 1) * wanted.every_sec - passed)


# --- command line ---

Number = TypeVar("Number", int, float)


def positive(convert: Callable[[str], Number]) -> Callable[[str], Number]:
    def read(text: str) -> Number:
        value = convert(text)
        if not 0 < value < 1e9:
            raise ValueError
        return value
    read.__name__ = f"positive {'whole ' if convert is int else ''}number"
    return read


def age(text: str) -> int:
    seconds = seconds_ago(text)
    if seconds is None:
        raise argparse.ArgumentTypeError(f"{text}: not an age like 90d, 12w or 24h")
    return seconds


def make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="vorn-record", allow_abbrev=False, usage="%(prog)s [options] -- VORN-ARGUMENTS",
        description="Run vorn and keep what it measures, each line with the time of its arrival.",
        epilog="Example: vorn-record -o lan.db --label office -- -e -d1000000 10.0.0.1")
    parser.add_argument("-o", dest="output", metavar="FILE", default=DEFAULT_FILE,
                        help=f"the file that is appended to ({DEFAULT_FILE}); - prints lines")
    parser.add_argument("--format", choices=list(FORMATS), default="json",
                        help="of the lines: JSON objects (json), or the line protocol of InfluxDB")
    parser.add_argument("--every", type=positive(float), metavar="SECONDS", help="start a run this often")
    parser.add_argument("--count", type=positive(int), metavar="N",
                        help="that many runs (1; with --every until stopped)")
    parser.add_argument("--label", default="", metavar="NAME", help="a name for these runs, to choose them by")
    parser.add_argument("--packets", action="store_true", help="keep every packet of a stream (-c without -s), too")
    parser.add_argument("--prune", type=age, metavar="AGE",
                        help="run nothing: forget what is older, for example 90d, and make the file smaller")
    add_version(parser)
    return parser


def prune(path: str, older_sec: int) -> int:
    try:
        database.close(database.open_to_read(path))  # makes no new one
        store = database.open_to_write(path)
        rows = database.prune(store, program.now_usec() - older_sec * 1_000_000)
        database.close(store)
    except (Unreadable, sqlite3.Error) as error:
        say(f"{path}: {error}" if isinstance(error, sqlite3.Error) else str(error))
        return UNWRITTEN
    say(f"{rows} rows forgotten; in {path}")
    return 0


def parse(parser: argparse.ArgumentParser, arguments: Sequence[str]) -> tuple[argparse.Namespace, list[str]]:
    own, rest = program.split_arguments(arguments)
    given, unknown = parser.parse_known_args(own)
    if unknown and "--" in arguments:
        parser.error(f"unknown: {' '.join(unknown)}")
    if given.prune is not None and rest:
        parser.error("--prune runs nothing: there is nothing to say behind --")
    if given.prune is None and not rest:
        parser.error("what vorn is to do stands behind --, for example: -- -e100 10.0.0.1")
    if any(word.startswith("-M") for word in rest):
        parser.error("a monitor in the background (-M) leaves nothing to record: --server stays in front")
    if given.format != "json" and given.output != "-":
        parser.error(f"--format {given.format} is for lines: -o -")
    return given, rest


def summary(tally: Tally, place: str) -> str:
    requests = f"{tally.requests} requests, {tally.lost} without an answer" if tally.requests else ""
    batches = f"{tally.batches} batches, {tally.bad} bad" if tally.batches else ""
    figures = "; ".join(filter(None, (requests, batches))) or "no request and no batch"
    return f"{tally.runs} run{'s' * (tally.runs != 1)}, {figures}; {place}"


def record(wanted: Wanted) -> int:
    sink: Sink
    try:
        if wanted.output == "-":
            sink = LineSink(FORMATS[wanted.shown]())
        else:
            sink = StoreSink(wanted.output)
    except Unreadable as error:
        say(str(error))
        return UNWRITTEN
    tally = Tally()
    with Stop([*STOP_SIGNALS, signal.SIGQUIT]) as stop:
        try:
            record_runs(sink, wanted, stop, tally)
        except OSError as error:
            tally.failed += 1
            say(f"{wanted.command[0]}: {error.strerror}")
        kept = sink.close()
        if wanted.output != "-":
            say(summary(tally, f"in {wanted.output}" if kept else f"not all of it in {wanted.output}"))
    if not kept and wanted.output != "-":
        return UNWRITTEN
    stop.leave()
    return 0 if kept and not tally.failed else 1


def main(arguments: Sequence[str] | None = None) -> int:
    given, rest = parse(make_parser(), sys.argv[1:] if arguments is None else arguments)
    if given.prune is not None:
        return prune(given.output, given.prune)
    found = program.find_program()
    if found is None:
        sys.exit("vorn-record: there is no vorn in PATH; VORN can name it")
    return record(Wanted([found, *rest], given.output, given.format, given.every,
                         given.count or (None if given.every else 1), given.label, socket.gethostname(),
                         given.packets))


if __name__ == "__main__":
    sys.exit(main())
