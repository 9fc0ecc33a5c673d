# SPDX-License-Identifier: MIT
"""vorn-check: one run of the program against limits, as a monitoring plugin."""

import argparse
import dataclasses
import json
import re
import signal
import sys

from vorn_companions import program as run
from vorn_companions.commands import check_metrics, checked
from vorn_companions.store import database as store
from vorn_companions.words import printable

UNKNOWN = 3
STATES = ("OK", "WARNING", "CRITICAL", "UNKNOWN")
DEFAULT_BOUND_SEC = 50.0  # monitoring systems end a plugin after 60

EPILOG = """limits:
  W:C   two numbers, each may be left out: a warning beyond W, critical beyond C.
        --loss 1:5 warns above 1 % and is critical above 5 %; --rate-p99 80:50
        warns below 80 Mbit/s and is critical below 50.
  W,C   two ranges of the monitoring plugins: 10 is 0 to 10, 10: from 10 on,
        10:20 between, @10:20 outside; what lies outside its range is reported.
Without --loss one lost packet warns, without --bad one bad batch. No answer at
all is critical; a run that cannot be made or judged is unknown, never OK.

Example: vorn-check --loss 1:5 --rtt-p95 20:100 -- -e20 10.0.0.1"""


@dataclasses.dataclass(frozen=True)
class Limited:
    """A figure that can be limited."""

    field: str  # of checked.Figures
    unit: str
    below: bool  # small values are the bad ones
    streams: bool | None  # only of command mode, only of echo mode; None: of both
    default: str
    text: str
    help: str

    @property
    def option(self):
        return "--" + self.field.replace("_", "-")


LIMITS = (
    Limited("loss", "%", False, None, "0:", "loss {:.3g} %",
            "packets without an answer, or lost from a stream, in percent (0:)"),
    Limited("rtt_p95", "ms", False, False, "", "p95 {:.3f} ms",
            "milliseconds within which 95 %% of the answers came"),
    Limited("rate_p99", "", True, True, "", "99 % reached {:.1f} Mbit/s",
            "Mbit/s that 99 %% of the good batches reached or beat"),
    Limited("bad", "", False, True, "0:", "{} bad", "bad batches (0:)"),
)


# --- limits ---

NUMBER = r"(\d+(?:\.\d*)?|\.\d+)"
PAIR = re.compile(rf"{NUMBER}?:{NUMBER}?", re.ASCII)
RANGE = re.compile(rf"|@?(?:{NUMBER}|~?:{NUMBER}?|{NUMBER}:{NUMBER}?)", re.ASCII)


def ranges_of(text, below):
    """The two ranges of a limit, as the plugin interface writes them; an empty one holds everything."""
    warning, comma, critical = text.partition(",")
    if comma:
        if not (RANGE.fullmatch(warning) and RANGE.fullmatch(critical)):
            raise argparse.ArgumentTypeError(f"'{text}': two ranges, like 10:,5: or @1:3,@2:3")
        return warning, critical
    pair = PAIR.fullmatch(text)
    if not pair or not any(pair.groups()):
        raise argparse.ArgumentTypeError(f"'{text}': two numbers, like 1:5, or one of them, like 1: or :5")
    warning, critical = pair.groups()
    if warning and critical and (float(critical) > float(warning) if below else float(critical) < float(warning)):
        raise argparse.ArgumentTypeError(f"'{text}': the first number warns, the second, further out, is critical")
    return tuple((number + ":" * below) if number else "" for number in (warning, critical))


# --- command line ---

class Parser(argparse.ArgumentParser):
    """Leaves with the status that means unknown: 0 would mean OK, and 2 critical."""

    def error(self, message):
        self.exit(UNKNOWN, f"VORN UNKNOWN - {one_line(message)}\n")

    def exit(self, status=0, message=None):
        if message:
            print(message, end="")
        sys.exit(UNKNOWN)


def seconds(text):
    value = float(text)
    if not 0 < value < 1e6:
        raise ValueError
    return value


def prometheus_name(text):
    if not text.endswith(".prom"):
        raise argparse.ArgumentTypeError(f"'{text}': the collector reads names that end in .prom")
    return text


def parse_arguments(arguments):
    own, rest = run.split_arguments(arguments)
    parser = Parser(prog="vorn-check", allow_abbrev=False, usage="%(prog)s [options] -- VORN-ARGUMENTS", epilog=EPILOG,
                    description="Run vorn once and hold what it measured against limits.",
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    for limited in LIMITS:
        parser.add_argument(limited.option, metavar="LIMIT", help=limited.help,
                            type=lambda text, limited=limited: ranges_of(text, limited.below))
    parser.add_argument("--timeout", type=seconds, metavar="SECONDS", default=DEFAULT_BOUND_SEC,
                        help="end the run after this long; it is not OK then (%(default)g)")
    parser.add_argument("--program", metavar="FILE", help="the program (vorn in PATH)")
    parser.add_argument("--label", default="", metavar="NAME", help="a name for the Prometheus figures of this check")
    parser.add_argument("--prometheus", type=prometheus_name, metavar="FILE",
                        help="write the figures for the textfile collector too")
    parser.add_argument("--json", action="store_true", help="print one JSON object in place of the line")
    options = parser.parse_args(own)
    if not rest:
        parser.error("what vorn is to do stands behind --, for example: -- -e20 10.0.0.1")
    options.streams = checked.is_stream(rest)
    for limited in LIMITS:
        given = getattr(options, limited.field)
        if given and limited.streams not in (None, options.streams):
            parser.error(f"{limited.option} is for " + ("streams (--client)" if limited.streams else "echo requests"))
        if given is None:
            setattr(options, limited.field, ranges_of(limited.default, limited.below) if limited.default else ("", ""))
    if checked.is_monitor(rest) or store.is_trace(rest):
        parser.error("a monitor and a trace have no figures to check")
    return options, rest


# --- judging ---

def described(figures, told=()):
    """The figures in words, but for the fields that are told already."""
    parts = []
    if figures.batches:
        parts.append(f"{figures.batches} batches")
    if figures.sent:
        parts.append(f"{figures.answered} of {figures.sent} {'packets' if figures.batches else 'answered'}")
    values = [(limited.text, getattr(figures, limited.field)) for limited in LIMITS if limited.field not in told]
    parts += [text.format(value) for text, value in values if value is not None]
    return ", ".join(parts)


def make_check(options, target, figures, failure):
    """The evaluated check of the plugin library."""
    import nagiosplugin

    class Vorn(nagiosplugin.Resource):
        def probe(self):
            yield nagiosplugin.Metric("answer", failure)
            for limited in LIMITS:
                value = getattr(figures, limited.field)
                if value is not None:
                    yield nagiosplugin.Metric(limited.field, round(value, 6), limited.unit, min=0)

    class Answer(nagiosplugin.Context):
        def evaluate(self, metric, resource):
            return nagiosplugin.Result(nagiosplugin.Critical if metric.value else nagiosplugin.Ok, metric.value)

    class Line(nagiosplugin.Summary):
        def ok(self, results):
            return f"{target}: {described(figures)}"

        def problem(self, results):
            reasons = [result for result in results if result.state != nagiosplugin.Ok]
            told = {result.metric.name for result in reasons if result.metric}
            return "; ".join(filter(None, [f"{target}: " + "; ".join(map(str, reasons)), described(figures, told)]))

    limits = [nagiosplugin.ScalarContext(limited.field, *getattr(options, limited.field),
                                         fmt_metric=lambda metric, _, text=limited.text: text.format(metric.value))
              for limited in LIMITS]
    return nagiosplugin.Check(Vorn(), Answer("answer"), *limits, Line())


def add_doubt(check, text):
    """Makes the check unknown, unless it is critical already: that stays true whatever else came."""
    import nagiosplugin
    if check.state != nagiosplugin.Critical:
        check.results.add(nagiosplugin.Result(nagiosplugin.Unknown, one_line(text)))


def one_line(text):
    """Text that a plugin may print: a bar would begin its performance data."""
    return printable(text).replace("|", "/")


# --- output ---

def json_text(check, target, options, figures):
    return json.dumps({"status": check.exitcode, "state": STATES[check.exitcode], "target": target,
                       "text": check.summary_str, **dataclasses.asdict(figures)})


def print_check(check, target, options, figures):
    if options.json:
        print(json_text(check, target, options, figures))
        return
    data = f" | {' '.join(check.perfdata)}" if check.perfdata else ""
    print(f"VORN {STATES[check.exitcode]} - {check.summary_str}{data}")


def check_once(options, arguments, stopped):
    program = options.program or run.find_program() or "vorn"
    outcome = checked.run_bounded([program, *arguments], options.timeout, stopped)
    if stopped:
        raise InterruptedError("stopped by a signal")
    figures = checked.figures_of(outcome, arguments)
    target = one_line(" ".join(word for word in arguments if not word.startswith("-")))
    check = make_check(options, target, figures, checked.failure(outcome, figures))
    check()
    for text in checked.doubts(outcome, figures, arguments, options.timeout):
        add_doubt(check, text)
    if options.prometheus:
        try:
            check_metrics.write(options, target, figures, check.exitcode)
        except OSError as error:
            add_doubt(check, f"{options.prometheus}: {error.strerror}")
    print_check(check, target, options, figures)
    return check.exitcode


def main(arguments=None):
    """Whatever goes wrong is unknown: status 0 belongs to checks that were made and passed."""
    sys.stdout.reconfigure(errors="replace")
    options, rest = parse_arguments(sys.argv[1:] if arguments is None else arguments)
    stopped = []
    for number in run.STOP_SIGNALS:  # noted only: a run that has begun must be ended, whenever they come
        signal.signal(number, lambda number, _frame: stopped.append(number))
    try:
        status = check_once(options, rest, stopped)
        sys.stdout.flush()
        return status
    except ImportError as error:
        print(f"VORN UNKNOWN - {error.name} is missing: python3-{error.name.replace('_', '-')}")
    except InterruptedError as error:
        print(f"VORN UNKNOWN - {error}")
    except Exception as error:  # a fault of ours must not pass for a measurement
        print(f"VORN UNKNOWN - {type(error).__name__}: {one_line(str(error))}")
    return UNKNOWN


if __name__ == "__main__":
    sys.exit(main())
