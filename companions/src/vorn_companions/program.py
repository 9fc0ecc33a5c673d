# SPDX-License-Identifier: MIT
"""Run the program and take its lines as they arrive."""

import fcntl
import os
import select
import shutil
import signal
import subprocess
import time

PIPE_BYTES = 1 << 20  # the program waits for a reader that is a pipe's length behind, and then measures itself


def find_program():
    """The path of vorn: what VORN names, else the first in PATH and where ordinary users do not look. None: nowhere."""
    places = os.environ.get("PATH", os.defpath) + ":/usr/local/sbin:/usr/sbin:/sbin"
    return shutil.which(os.environ.get("VORN") or "vorn", path=places)


def split_arguments(arguments):
    """A companion's own arguments, and those of the program, which stand behind the first --."""
    cut = arguments.index("--") if "--" in arguments else len(arguments)
    return arguments[:cut], arguments[cut + 1:]


def now_usec():
    return time.time_ns() // 1000


def start(command):
    """Starts the program, both streams in one pipe, in a process group of its own: Ctrl-C reaches it through us."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               process_group=0)
    try:
        fcntl.fcntl(process.stdout, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
    except OSError:
        pass  # less is allowed here
    return process


def arrivals(stream, period_sec=1.0):
    """Yields lists of (time_usec, text) of a pipe, the lines of up to `period_sec` each, empty ones too; until its end.

    Without a period (0) lines are yielded as they arrive. The text of a last line that was cut off, without its
    newline, is None.
    """
    rest = b""
    taken = []
    due = time.monotonic() + period_sec
    while True:
        wait_sec = max(0.0, due - time.monotonic()) if period_sec else None
        ready, _, _ = select.select([stream], [], [], wait_sec)
        if ready:
            data = os.read(stream.fileno(), PIPE_BYTES)
            stamp = now_usec()
            *whole, rest = (rest + data).split(b"\n")
            taken += [(stamp, text.decode(errors="replace")) for text in whole]
            if not data:
                yield taken + ([(stamp, None)] if rest else [])
                return
        if time.monotonic() >= due:
            yield taken
            taken = []
            due = time.monotonic() + period_sec


def forward(process, number):
    """Passes a signal on to the program, if it still runs."""
    if process.poll() is None:
        process.send_signal(number)


STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
