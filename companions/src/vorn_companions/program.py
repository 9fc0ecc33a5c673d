# SPDX-License-Identifier: MIT
"""The program: what its arguments make of a run, how it is started, heard and ended."""

import contextlib
import fcntl
import os
import shutil
import signal
import subprocess
import time
from collections.abc import Iterator, Sequence

from vorn_companions.signals import Stop

PIPE_BYTES = 1 << 20  # the program waits for a reader that is a pipe's length behind, and then measures itself

Arrived = tuple[int, str | None]  # when a line arrived, usec since 1970; None for one that was cut off


# --- what the arguments make of a run ---

def split_arguments(arguments: Sequence[str]) -> tuple[list[str], list[str]]:
    """A companion's own arguments, and those of the program, which stand behind the first --."""
    own = list(arguments)
    cut = own.index("--") if "--" in own else len(own)
    return own[:cut], own[cut + 1:]


def _has(arguments: Sequence[str], letter: str, preset: str, unique: int) -> bool:
    """Whether a letter is among the arguments, or its preset, abbreviated down to so many characters."""
    return any(word.startswith(letter) or len(word) >= unique and preset.startswith(word) for word in arguments)


def is_trace(arguments: Sequence[str]) -> bool:
    return _has(arguments, "-t", "--trace", 3)


def is_stream(arguments: Sequence[str]) -> bool:
    """Whether these arguments make the program command a stream."""
    return _has(arguments, "-c", "--client", 3)


def is_monitor(arguments: Sequence[str]) -> bool:
    return _has(arguments, "-M", "--server", 4)


def hides_answers(arguments: Sequence[str]) -> bool:
    """Whether answers have no line. The totals that are left count ICMP errors among the answers."""
    return any(word.startswith("-s") for word in arguments)


def hosts_of(arguments: Sequence[str]) -> str:
    """The destination as it was given: a host, or the first and the last of a range."""
    return " ".join(word for word in arguments if not word.startswith("-"))


# --- a run ---

def find_program() -> str | None:
    """The path of vorn: what VORN names, else the first in PATH and where ordinary users do not look. None: nowhere."""
    places = os.environ.get("PATH", os.defpath) + ":/usr/local/sbin:/usr/sbin:/sbin"
    return shutil.which(os.environ.get("VORN") or "vorn", path=places)


def now_usec() -> int:
    return time.time_ns() // 1000


def start(command: Sequence[str]) -> subprocess.Popen[bytes]:
    """Starts the program, both streams in one pipe, in a process group of its own: Ctrl-C reaches it through us."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               process_group=0)
    assert process.stdout
    with contextlib.suppress(OSError):  # less is allowed here
        fcntl.fcntl(process.stdout, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
    return process


def arrivals(process: subprocess.Popen[bytes], stop: Stop, period_sec: float = 0.0) -> Iterator[list[Arrived]]:
    """Yields what the program prints until the end of its output: lists of the lines of up to `period_sec` each, empty
    ones too, or of what has arrived together when there is no period. A signal ends a period early."""
    assert process.stdout
    pipe = process.stdout.fileno()
    rest, taken = b"", list[Arrived]()
    due = time.monotonic() + period_sec
    while True:
        ready = stop.readable(pipe, max(0.0, due - time.monotonic()) if period_sec else None)
        if ready:
            data = os.read(pipe, PIPE_BYTES)
            stamp = now_usec()
            *whole, rest = (rest + data).split(b"\n")
            taken += [(stamp, text.decode(errors="replace")) for text in whole]
            if not data:
                yield taken + ([(stamp, None)] if rest else [])
                return
        if not ready or time.monotonic() >= due:
            yield taken
            taken = []
            due = time.monotonic() + period_sec


def end(process: subprocess.Popen[bytes]) -> None:
    """Ends the program and whatever it has started, whatever it does."""
    if process.poll() is None:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    if process.stdout:
        process.stdout.close()
