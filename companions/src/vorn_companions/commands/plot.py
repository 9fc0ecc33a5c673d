# SPDX-License-Identifier: MIT
"""vorn-plot: draws what was measured."""

import argparse
import dataclasses
import datetime
import os
import sqlite3
import sys
from collections.abc import Callable, Sequence
from typing import TextIO

from vorn_companions.commands.common import Progress, add_version, replace_strange_letters, seconds_ago
from vorn_companions.figures import catalogue
from vorn_companions.figures.catalogue import Figure
from vorn_companions.figures.history import GROUPINGS
from vorn_companions.figures.options import Options
from vorn_companions.figures.page import page
from vorn_companions.figures.sheet import Block, csv_text, text_lines
from vorn_companions.read.files import KINDS, read_source
from vorn_companions.read.records import Sources
from vorn_companions.store.reading import Selection
from vorn_companions.words import NothingChosen, Unreadable, printable

MOST_NOTES = 5
ROW_GROUPINGS = ("row", "tag")
SELECTING = ("since", "until", "host", "label")


# --- command line ---

def moment(text: str) -> int:
    """Microseconds since 1970 of a local date, with or without a time, or of a time ago: 90m, 24h, 7d."""
    try:
        ago = seconds_ago(text)
        now = datetime.datetime.now().timestamp()
        return round(1e6 * (datetime.datetime.fromisoformat(text).timestamp() if ago is None else now - ago))
    except (ValueError, OverflowError):
        raise argparse.ArgumentTypeError(f"{text}: neither a date like 2026-01-31 or '2026-01-31 12:00' nor a time ago "
                                         "like 24h or 7d") from None


def picture_name(text: str) -> str:
    if not text.lower().endswith((".png", ".svg")):
        raise argparse.ArgumentTypeError(f"{text}: the name has to end in .png or .svg")
    return text


def figure_help() -> str:
    lines = ["figures:"]
    for figure in catalogue.FIGURES:
        made_of = ", ".join(KINDS[kind].removeprefix("a ") for kind in figure.kinds)
        lines += [f"  {figure.name:11} {figure.help}", f"  {'':11} from {made_of}"]
    return "\n".join([*lines, "", "The kind of each file is recognised from its content. Without -k each gives its "
                      "first\nfigure in this list; with --html it gives all."])


def make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="vorn-plot", description="Draw what vorn measured.", epilog=figure_help(),
                                     formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False)
    parser.add_argument("files", nargs="+", metavar="file",
                        help="results file, histogram file, saved output, records of vorn-record, or -")
    parser.add_argument("-o", dest="output", metavar="PICTURE", type=picture_name,
                        help="write the picture here: .png or .svg")
    parser.add_argument("-k", dest="figure", choices=catalogue.NAMES, metavar="FIGURE", help="the figure, see below")
    parser.add_argument("--html", metavar="FILE", help="write a page with pictures and figures here")
    parser.add_argument("--text", action="store_true", help="print the figures; needs no matplotlib")
    parser.add_argument("--csv", metavar="FILE", help="write the numbers behind the figures here; - prints them")
    parser.add_argument("--by", choices=ROW_GROUPINGS + GROUPINGS,
                        help="rate, histogram: a line a row or a tag; records: a host (default), label, run or site")
    parser.add_argument("--since", metavar="TIME", type=moment,
                        help="records from then on: 2026-01-31, '2026-01-31 12:00', 24h, 7d")
    parser.add_argument("--until", metavar="TIME", type=moment, help="records before then")
    parser.add_argument("--host", help="records of this host")
    parser.add_argument("--label", help="records with this label")
    parser.add_argument("--title", help="the title of the picture or of the page")
    add_version(parser)
    return parser


def given_selection(arguments: Sequence[str], options: argparse.Namespace) -> str:
    """The options that select, as the user wrote them: " with --since 24h"."""
    words = []
    for number, word in enumerate(arguments):
        name, sign, value = word.partition("=")
        if name.removeprefix("--") in SELECTING and getattr(options, name.removeprefix("--"), None) is not None:
            words += [name, value if sign else arguments[number + 1]]
    return f" with {' '.join(words)}" if words else ""


def parse(arguments: Sequence[str]) -> tuple[argparse.ArgumentParser, argparse.Namespace, Options]:
    parser = make_parser()
    given = parser.parse_args(arguments)
    if not (given.output or given.text or given.html or given.csv):
        parser.error("nothing to do: give -o PICTURE, --html FILE, --csv FILE or --text")
    selection = Selection(given.since, given.until, given.host, given.label, given_selection(arguments, given))
    return parser, given, Options(given.title, given.by, selection)


# --- what is shown ---

Chosen = list[tuple[Figure, Sources]]


def check_kinds(given: argparse.Namespace, options: Options, kind_of: dict[str, str]) -> None:
    """Raises Unreadable for a file that the wanted figure cannot be made of, or that cannot be chosen from."""
    for path, kind in kind_of.items():
        if given.figure and kind not in catalogue.named(given.figure).kinds:
            needed = " or ".join(KINDS[each] for each in catalogue.named(given.figure).kinds)
            raise Unreadable(path, 1, f"{KINDS[kind]}; the figure '{given.figure}' needs {needed}")
        if options.selection.given and kind != "stores":
            raise Unreadable(path, 1, f"{KINDS[kind]} cannot be chosen from{options.selection.given}: that takes "
                             "a file of records")


def choose(parser: argparse.ArgumentParser, given: argparse.Namespace, kinds: Sequence[str],
           sources: Sources) -> Chosen:
    if given.output and len(kinds) > 1:
        parser.error("one picture shows one kind of file; here are " + " and ".join(KINDS[kind] for kind in kinds))
    if given.by and any((given.by in ROW_GROUPINGS) == (kind == "stores") for kind in kinds):
        parser.error(f"--by {given.by} is for " + ("results and histogram files" if given.by in ROW_GROUPINGS
                                                   else "records"))
    chosen: Chosen = []
    for kind in kinds:
        own = Sources(**{kind: getattr(sources, kind)})
        fits = [catalogue.named(given.figure)] if given.figure else catalogue.fitting(kind, own)
        chosen += [(figure, own) for figure in (fits if given.html else fits[:1])]
    return chosen


def made(chosen: Chosen, make: Callable[[Figure, Sources], object]) -> list[tuple[Figure, Sources]]:
    """Those figures of which the selection leaves something; each other is named. Raises when it leaves nothing."""
    left: Chosen = []
    for figure, sources in chosen:
        try:
            make(figure, sources)
            left.append((figure, sources))
        except NothingChosen as error:
            if len(chosen) == 1:
                raise
            print(f"no {figure.name}: {error}", file=sys.stderr)
    if not left:
        raise Unreadable("vorn-plot", None, "nothing is left to show")
    return left


def report_notes(notes: Sequence[str]) -> None:
    for note in notes[:MOST_NOTES]:
        print(note, file=sys.stderr)
    if len(notes) > MOST_NOTES:
        print(f"... and {len(notes) - MOST_NOTES} more lines like these", file=sys.stderr)


def print_blocks(blocks_of: Sequence[Sequence[Block]], out: TextIO) -> None:
    for number, blocks in enumerate(blocks_of):
        print("\n" * bool(number), end="", file=out)
        for block in blocks:
            for line in text_lines(block):
                print(line, file=out)


def write_csv(path: str, blocks_of: Sequence[Sequence[Block]]) -> None:
    text = "\n".join(map(csv_text, blocks_of))
    if path == "-":
        sys.stdout.write(text)
    else:
        with open(path, "w", encoding="utf-8") as stream:
            stream.write(text)


def show(parser: argparse.ArgumentParser, given: argparse.Namespace, options: Options) -> None:
    sources = Sources()
    kind_of = {path: read_source(sources, path) for path in given.files}
    report_notes(sources.notes)
    check_kinds(given, options, kind_of)
    chosen = choose(parser, given, list(dict.fromkeys(kind_of.values())), sources)
    blocks_of: dict[str, list[Block]] = {}
    if given.text or given.csv or given.html:
        chosen = made(chosen, lambda figure, own: blocks_of.setdefault(figure.name, figure.text(own, options)))
    if given.text:
        print_blocks(list(blocks_of.values()), sys.stdout)
    if given.csv:
        write_csv(given.csv, list(blocks_of.values()))
    if given.output or given.html:
        draw(chosen, given, options, blocks_of)
    sys.stdout.flush()


def draw(chosen: Chosen, given: argparse.Namespace, options: Options, blocks_of: dict[str, list[Block]]) -> None:
    from vorn_companions.figures.canvas import prepare, settle
    prepare()
    if given.output:
        metadata = {"Date": None} if given.output.lower().endswith(".svg") else {"Software": None}
        figure, own = chosen[0]
        picture = figure.draw(own, options)
        settle(picture)
        picture.savefig(given.output, dpi=120, metadata=metadata)
    if given.html:
        untitled = dataclasses.replace(options, title=None)  # it stands above them all
        sections = [(figure.draw(own, untitled), blocks_of[figure.name]) for figure, own in chosen]
        for picture, _ in sections:
            settle(picture)
        with open(given.html, "w", encoding="utf-8") as stream:
            stream.write(page(given.title or "What Vorn measured", sections))


def main(arguments: Sequence[str] | None = None) -> int:
    parser, given, options = parse(sys.argv[1:] if arguments is None else arguments)
    replace_strange_letters()
    try:
        with Progress("vorn-plot: works on " + ", ".join(map(printable, given.files))):
            show(parser, given, options)
    except Unreadable as error:
        sys.exit(str(error))
    except ImportError as error:
        sys.exit(f"vorn-plot: pictures need python3-{error.name}; --text does without")
    except sqlite3.Error as error:
        sys.exit(f"vorn-plot: {printable(', '.join(given.files))}: {error}")
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        # The reader of the text has seen enough; without this Python would complain while it closes the stream.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except OSError as error:
        sys.exit(f"vorn-plot: {error.filename or 'standard output'}: {error.strerror}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
