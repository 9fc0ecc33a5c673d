# SPDX-License-Identifier: MIT
"""vorn-plot: the command line."""

import argparse
import datetime
import os
import re
import sqlite3
import sys

from vorn_companions.figures import catalogue
from vorn_companions.figures.page import page
from vorn_companions.read.files import FILE_KINDS, read_source
from vorn_companions.figures.recorded import GROUPINGS
from vorn_companions.figures.sheet import print_blocks
from vorn_companions.words import Unreadable, printable

MOST_NOTES = 5
UNITS_SEC = {"s": 1, "m": 60, "h": 3600, "d": 86400, "w": 7 * 86400}
RATE_GROUPINGS = ("row", "tag")


def since(text):
    """Microseconds since 1970 of a local date, with or without a time, or of a time ago: 90m, 24h, 7d."""
    ago = re.fullmatch(r"(\d{1,6})([smhdw])", text)
    if ago:
        moment = datetime.datetime.now() - datetime.timedelta(seconds=int(ago[1]) * UNITS_SEC[ago[2]])
    else:
        moment = datetime.datetime.fromisoformat(text)
    return round(moment.timestamp() * 1e6)


def figure_help():
    lines = ["figures:"]
    for figure in catalogue.FIGURES:
        made_of = ", ".join(FILE_KINDS[kind].removeprefix("a ") for kind in figure.sources)
        lines += [f"  {figure.name:11} {figure.help}", f"  {'':11} from {made_of}"]
    return "\n".join([*lines, "", "The kind of each file is recognised from its content. Without -k each gives its "
                      "first\nfigure in this list; with --html it gives all."])


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(prog="vorn-plot", description="Draw what vorn measured.", epilog=figure_help(),
                                     formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False)
    parser.add_argument("files", nargs="+", metavar="file",
                        help="results file, histogram file, saved output, records of vorn-record, or -")
    parser.add_argument("-o", dest="output", metavar="PICTURE", help="write the picture here: .png or .svg")
    parser.add_argument("-k", dest="figure", choices=catalogue.NAMES, metavar="FIGURE", help="the figure, see below")
    parser.add_argument("--html", metavar="FILE", help="write a page with pictures and figures here")
    parser.add_argument("--text", action="store_true", help="print the figures; needs no matplotlib")
    parser.add_argument("--by", choices=RATE_GROUPINGS + GROUPINGS,
                        help="rate, histogram: a line a row or a tag; records: a host (default), label, run or site")
    parser.add_argument("--since", metavar="TIME", help="records from then on: 2026-01-31, '2026-01-31 12:00', 24h, 7d")
    parser.add_argument("--host", help="records of this host")
    parser.add_argument("--label", help="records with this label")
    parser.add_argument("--title", help="the title of the picture or of the page")
    args = parser.parse_args(arguments)
    if not args.output and not args.text and not args.html:
        parser.error("nothing to do: give -o PICTURE, --html FILE or --text")
    if args.output and not args.output.lower().endswith((".png", ".svg")):
        parser.error(f"-o {args.output}: the name has to end in .png or .svg")
    args.since_text = args.since
    try:
        args.since = args.since and since(args.since)
    except (ValueError, OverflowError):
        parser.error(f"--since {args.since}: neither a date like 2026-01-31 or '2026-01-31 12:00' nor a time ago "
                     "like 24h or 7d")
    return parser, args


def items_by_kind(sources):
    items = {}
    for source in sources:
        items.setdefault(source.kind, []).extend(source.items)
    return items


def chosen_figures(parser, args, sources):
    """[(figure, items)] to show."""
    if args.figure:
        needed = catalogue.named(args.figure).sources
        for source in sources:
            if source.kind not in needed:
                raise Unreadable(source.path, 1, f"{FILE_KINDS[source.kind]}; the figure '{args.figure}' needs "
                                 + " or ".join(FILE_KINDS[kind] for kind in needed))
    items = items_by_kind(sources)
    if args.output and len(items) > 1:
        parser.error("one picture shows one kind of file; here are " + " and ".join(FILE_KINDS[k] for k in items))
    if args.by and any((args.by in RATE_GROUPINGS) == (kind == "store") for kind in items):
        parser.error(f"--by {args.by} is for " + ("results and histogram files" if args.by in RATE_GROUPINGS
                                                  else "records"))
    chosen = []
    for kind, own in items.items():
        fits = [catalogue.named(args.figure)] if args.figure else catalogue.fitting(kind, own)
        chosen += [(figure, own) for figure in (fits if args.html else fits[:1])]
    return chosen


def need_matplotlib():
    try:
        import matplotlib
    except ImportError:
        sys.exit("vorn-plot: pictures need python3-matplotlib; --text does without")
    # The same input gives the same bytes: no date, no random identifiers.
    matplotlib.rcParams["svg.hashsalt"] = "vorn-plot"


def save_picture(figure, items, args):
    need_matplotlib()
    metadata = {"Date": None} if args.output.lower().endswith(".svg") else {"Software": None}
    figure.draw(items, args).savefig(args.output, dpi=120, metadata=metadata)


def save_page(figures, args):
    need_matplotlib()
    title, args.title = args.title or "What Vorn measured", None
    sections = [(figure.draw(items, args), figure.blocks(items, args)) for figure, items in figures]
    with open(args.html, "w", encoding="utf-8") as stream:
        stream.write(page(title, sections))


def report_notes(sources):
    notes = [note for source in sources for note in source.notes]
    for note in notes[:MOST_NOTES]:
        print(note, file=sys.stderr)
    if len(notes) > MOST_NOTES:
        print(f"... and {len(notes) - MOST_NOTES} more lines like these", file=sys.stderr)


def show(parser, args):
    sources = [read_source(path) for path in args.files]
    report_notes(sources)
    figures = chosen_figures(parser, args, sources)
    if args.text:
        for number, (figure, items) in enumerate(figures):
            print("\n" if number else "", end="")
            print_blocks(figure.blocks(items, args))
    if args.output:
        save_picture(*figures[0], args)
    if args.html:
        save_page(figures, args)
    sys.stdout.flush()


def main(arguments=None):
    parser, args = parse_arguments(sys.argv[1:] if arguments is None else arguments)
    sys.stdout.reconfigure(errors="replace")  # a tag may hold what the terminal's encoding does not
    try:
        show(parser, args)
    except Unreadable as error:
        sys.exit(str(error))
    except sqlite3.Error as error:
        sys.exit(f"vorn-plot: {printable(', '.join(args.files))}: {error}")
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        # The reader of the text has seen enough; without this Python would complain while it closes the stream.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except OSError as error:
        sys.exit(f"vorn-plot: {error.filename or args.output or args.html}: {error.strerror}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
