# SPDX-License-Identifier: MIT
"""vorn-line: what a line carries, and how it feels under load."""

import argparse
import dataclasses
import json
import os
import socket
import sqlite3
import sys
import time

from vorn_companions import program
from vorn_companions.commands.common import add_version, replace_strange_letters
from vorn_companions.figures.sheet import text_lines
from vorn_companions.line import keep, measure, say, under_way, verdict
from vorn_companions.line.result import Line, json_object
from vorn_companions.signals import Stop
from vorn_companions.store import database
from vorn_companions.words import Unreadable, printable

PICTURE_ENDINGS = (".svg", ".png", ".html")

EPILOG = """exit status:
  0  measured, and within the limits
  1  measured, and a limit of --min-rate or --max-delay missed
  2  not measured, in all or in part; standard error has the reason

On the host there has to run: vorn --server
Example: vorn-line --into lines.db --label office -o line.svg 10.0.0.1"""


def complain(text: str) -> None:
    print(f"vorn-line: {printable(text)}", file=sys.stderr, flush=True)


# --- command line ---

def positive(text: str) -> float:
    value = float(text)
    if not 0 < value < 1e9:
        raise ValueError
    return value


def percent(text: str) -> float:
    value = float(text)
    if not 0 <= value < 100:
        raise ValueError
    return value


def rates(text: str) -> dict[str, float | None]:
    down, _, up = text.partition(":")
    if not down and not up:
        raise ValueError
    return {"down": positive(down) if down else None, "up": positive(up) if up else None}


def picture_name(text: str) -> str:
    if not text.lower().endswith(PICTURE_ENDINGS):
        raise argparse.ArgumentTypeError(f"'{text}': the name has to end in .svg, .png or .html")
    return text


def make_parser() -> argparse.ArgumentParser:
    found = argparse.ArgumentParser(
        prog="vorn-line", allow_abbrev=False, epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Measure what the line to a host carries, and how it feels under load, in at most 20 seconds.")
    found.add_argument("host", help="the far end, where a monitor runs")
    found.add_argument("--down", action="store_true", help="only the way from the far end to this host")
    found.add_argument("--up", action="store_true", help="only the way from this host to the far end")
    found.add_argument("--quick", action="store_true", help="5 seconds: shorter, and without the lossless rate")
    found.add_argument("--loss", type=percent, default=0.0, metavar="PERCENT",
                       help="what the lossless rate may lose (%(default)g)")
    found.add_argument("--min-rate", type=rates, metavar="DOWN[:UP]", default={"down": None, "up": None},
                       help="Mbit/s that the line has to carry at least; one may be left out, as in :8")
    found.add_argument("--max-delay", type=positive, metavar="MSEC",
                       help="what a load may add to the median round trip at most")
    found.add_argument("--json", action="store_true", help="print one JSON object in place of the lines")
    found.add_argument("-o", dest="output", type=picture_name, metavar="PICTURE",
                       help="draw the line here: .svg, .png, or .html with the figures")
    found.add_argument("--into", metavar="FILE", help="append it to these records of vorn-record")
    found.add_argument("--label", default="", metavar="NAME", help="a name for this line, to choose it by")
    add_version(found)
    return found


def plan_of(options: argparse.Namespace) -> measure.Plan:
    both = options.down == options.up
    return dataclasses.replace(measure.QUICK if options.quick else measure.FULL, down=both or options.down,
                               up=both or options.up, loss_percent=options.loss)


# --- while it measures ---

class Progress:
    """What runs now and what is left, on a terminal."""

    def __init__(self, shown: bool) -> None:
        self.shown, self.text = shown, ""

    def say(self, name: str, left: list[str]) -> None:
        now = measure.PHASES[name] if name else "is there a monitor?"
        self.text = now + f"; left: {', '.join(left)}" * bool(left)

    def show(self, age_sec: float) -> None:
        if self.shown:
            width = os.get_terminal_size(sys.stderr.fileno()).columns
            print(f"\r\033[K{f'[{age_sec:2.0f} s] {self.text}'[:width - 1]}", end="", file=sys.stderr, flush=True)

    def clear(self) -> None:
        if self.shown:
            print("\r\033[K", end="", file=sys.stderr, flush=True)


def measured(path: str, options: argparse.Namespace, stop: Stop) -> Line:
    progress = Progress(sys.stderr.isatty())
    begun = time.monotonic()
    session = under_way.Session(path, options.host, stop, lambda: progress.show(time.monotonic() - begun))
    line = Line(options.host, options.label, program.now_usec())
    with stop:
        measure.measure(session, plan_of(options), line, progress.say)
    progress.clear()
    return line


# --- what it found ---

def deliver(line: Line, options: argparse.Namespace, store: database.Store | None) -> bool:
    """Keeps, prints and draws; whether all of that worked."""
    blocks = say.blocks_of(line, options.loss)
    done = True
    if store and line.phases:
        try:
            keep.keep(store, socket.gethostname(), line)
        except sqlite3.Error as error:
            complain(f"{options.into}: {error}; this line is not kept")
            done = False
    texts = [text.rstrip() for block in blocks for text in text_lines(block)]
    print(json.dumps(json_object(line)) if options.json else "\n".join(texts), flush=True)
    if options.output and line.phases and not line.stopped:
        try:
            from vorn_companions.line import draw  # it takes 50 MB and a second, which a small device may not have
            draw.save(line, blocks, options.output)
        except (OSError, ImportError) as error:
            complain(f"{options.output}: {error}")
            done = False
    return done


def main(arguments: list[str] | None = None) -> int:
    options = make_parser().parse_args(arguments)
    path = program.find_program()
    if path is None:
        complain("there is no vorn in PATH; VORN can name it")
        return verdict.NOT_MEASURED
    try:
        store = database.open_to_write(options.into) if options.into else None
    except Unreadable as error:
        complain(str(error))
        return verdict.NOT_MEASURED
    replace_strange_letters()
    stop = Stop()
    line = measured(path, options, stop)
    limits = verdict.Limits(options.min_rate, options.max_delay and 1000 * options.max_delay)
    status, sentences = verdict.judge(line, limits)
    done = deliver(line, options, store) if line.phases or options.json else True
    stop.leave()
    for sentence in sentences:
        complain(sentence)
    return status if done else verdict.NOT_MEASURED


if __name__ == "__main__":
    sys.exit(main())
