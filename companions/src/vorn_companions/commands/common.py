# SPDX-License-Identifier: MIT
"""What the commands share: their version, and a sign of life."""

import argparse
import importlib.metadata
import re
import signal
import sys
from types import FrameType, TracebackType

PATIENCE_SEC = 2


UNITS_SEC = {"s": 1, "m": 60, "h": 3600, "d": 86400, "w": 7 * 86400}


def seconds_ago(text: str) -> int | None:
    """Seconds of a time ago: 90m, 24h, 7d; None when it is written otherwise."""
    ago = re.fullmatch(r"(\d{1,6})([smhdw])", text, re.ASCII)
    return int(ago[1]) * UNITS_SEC[ago[2]] if ago else None


def version() -> str:
    try:
        return importlib.metadata.version("vorn-companions")
    except importlib.metadata.PackageNotFoundError:
        return "not installed"


def add_version(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--version", action="version", version=f"%(prog)s {version()}")


def replace_strange_letters() -> None:
    """A tag may hold what the terminal's encoding does not."""
    reconfigure = getattr(sys.stdout, "reconfigure", None)
    if reconfigure:
        reconfigure(errors="replace")


class Progress:
    """Says on a terminal, after two seconds and while it is entered, what is being done and for how long."""

    def __init__(self, text: str) -> None:
        self.text = text
        self.seconds = 0

    def __enter__(self) -> None:
        if sys.stderr.isatty():
            signal.signal(signal.SIGALRM, self._tell)
            signal.setitimer(signal.ITIMER_REAL, PATIENCE_SEC, 1)

    def _tell(self, _number: int, _frame: FrameType | None) -> None:
        self.seconds += 1
        print(f"\r{self.text}: {self.seconds + PATIENCE_SEC - 1} s", end="", file=sys.stderr, flush=True)

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        if sys.stderr.isatty():
            signal.setitimer(signal.ITIMER_REAL, 0)
            if self.seconds:
                print("\r\033[K", end="", file=sys.stderr, flush=True)
