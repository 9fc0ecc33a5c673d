# SPDX-License-Identifier: MIT
"""Runs of the program that are under way: started, watched and ended together.

What they print goes to files without a name. A pipe would wake its reader for every packet of a stream, beside the very
program that measures it.
"""

import collections
import contextlib
import dataclasses
import os
import signal
import subprocess
import tempfile
import time
from collections.abc import Callable, Iterator
from typing import IO

from vorn_companions import program
from vorn_companions.signals import Stop

POLL_SEC = 0.01
NOTES_BYTES = 400  # at the end of what a run prints
OWN_LOSSES = {"receive buffer": "dropped by this host's receive buffer", "send queue": "this host discarded at least"}
PATIENCE_SEC = 0.1  # for a run that was asked to end; then it is killed


class Stopped(Exception):
    """A signal asked this program to end."""


class NotMeasured(Exception):
    """There is no figure, and the text says why."""


@dataclasses.dataclass(slots=True)
class UnderWay:
    """A run of the program, or what is left of it."""

    command: list[str]
    process: "subprocess.Popen[bytes]"
    output: IO[bytes]
    started_usec: int
    ended_usec: int | None = None
    grown: float = dataclasses.field(default_factory=time.monotonic)  # when it last printed, or started
    stamps: list[tuple[int, int]] = dataclasses.field(default_factory=list)  # bytes printed at most until then, usec

    @property
    def ended(self) -> bool:
        return self.ended_usec is not None

    @property
    def silent_sec(self) -> float:
        return time.monotonic() - self.grown


@dataclasses.dataclass(slots=True)
class Session:
    """What all runs of one measurement share."""

    program: str
    host: str
    stop: Stop
    tick: Callable[[], None]  # called at every look at the runs
    notes: "collections.Counter[str]" = dataclasses.field(default_factory=collections.Counter)  # runs that lost by us
    active: list[UnderWay] = dataclasses.field(default_factory=list)
    begun: float = dataclasses.field(default_factory=time.monotonic)

    @property
    def age_sec(self) -> float:
        return time.monotonic() - self.begun


@contextlib.contextmanager
def under_way(session: Session, *arguments: str) -> Iterator[UnderWay]:
    """A run towards the host for the length of the `with`, behind which it has ended."""
    command = [session.program, *arguments, session.host]
    output = tempfile.TemporaryFile()
    started_usec = program.now_usec()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                               process_group=0)
    run = UnderWay(command, process, output, started_usec)
    session.active.append(run)
    try:
        yield run
    finally:
        end(run)
        session.active.remove(run)
        session.notes.update(notes_of(run))


def end(run: UnderWay) -> None:
    """An echo test that is asked once to end awaits its answers; asked again, it ends at once."""
    for number in (signal.SIGTERM, signal.SIGTERM, signal.SIGKILL):
        if run.process.poll() is None:
            run.process.send_signal(number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                run.process.wait(PATIENCE_SEC / 2)
    run.process.wait()
    look_at(run)


def notes_of(run: UnderWay) -> set[str]:
    """What the program says at its end of packets that this host itself lost, without the counts."""
    size = os.fstat(run.output.fileno()).st_size
    last = os.pread(run.output.fileno(), NOTES_BYTES, max(0, size - NOTES_BYTES)).decode(errors="replace")
    return {name for name, sign in OWN_LOSSES.items() if sign in last}


def look_at(run: UnderWay) -> None:
    """Notes how much the run has printed by now, and whether it has ended."""
    ended = run.process.poll() is not None
    printed, now_usec = os.fstat(run.output.fileno()).st_size, program.now_usec()
    if not run.stamps or printed > run.stamps[-1][0]:
        run.stamps.append((printed, now_usec))
        run.grown = time.monotonic()
    if ended and run.ended_usec is None:
        run.ended_usec = now_usec


def look(session: Session) -> None:
    """A moment's pause, and a look at all runs."""
    session.stop.pause(POLL_SEC)
    for run in session.active:
        look_at(run)
    session.tick()
    if session.stop.signal is not None:
        raise Stopped


def wait_for(session: Session, *runs: UnderWay, longest_sec: float, silence_sec: float | None = None) -> None:
    """Until all of the runs have ended, for at most so long, or until none has printed anything for `silence_sec`."""
    limit = time.monotonic() + longest_sec
    while not all(run.ended for run in runs) and time.monotonic() < limit:
        if silence_sec is not None and all(run.ended or run.silent_sec > silence_sec for run in runs):
            return
        look(session)


def lines_of(run: UnderWay) -> Iterator[tuple[int, str]]:
    """(time in usec at which it was there at the latest, text) of each whole line that the run has printed."""
    # The place in the file is the run's as well: it must stay where it writes.
    printed = os.pread(run.output.fileno(), os.fstat(run.output.fileno()).st_size, 0)
    place, stamps = 0, iter(run.stamps)
    known, time_usec = next(stamps, (0, run.started_usec))
    for line in printed.splitlines(keepends=True):
        if not line.endswith(b"\n"):
            return
        place += len(line)
        while place > known:
            known, time_usec = next(stamps, (place, time_usec))
        yield time_usec, line.decode(errors="replace").rstrip("\n")
