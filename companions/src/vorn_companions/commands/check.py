# SPDX-License-Identifier: MIT
"""vorn-check: one run of the program against limits, as a monitoring plugin."""

import argparse
import dataclasses
import json
import re
import sys
from collections.abc import Sequence
from typing import Any, NoReturn

from vorn_companions import program
from vorn_companions.commands import check_run
from vorn_companions.commands.check_run import Figures, Outcome
from vorn_companions.commands.common import add_version, replace_strange_letters
from vorn_companions.read.records import REPLY
from vorn_companions.signals import Stop
from vorn_companions.words import printable

OK, WARNING, CRITICAL, UNKNOWN = range(4)
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

    field: str  # of Figures
    unit: str
    below: bool  # small values are the bad ones
    streams: bool | None  # only of command mode, only of echo mode; None: of both
    default: str
    always: bool  # told without a limit, too
    text: str
    help: str

    @property
    def option(self) -> str:
        return "--" + self.field.replace("_", "-")


LIMITS = (
    Limited("loss", "%", False, None, "0:", True, "loss {:.3g} %",
            "packets without an answer, or lost from a stream, in percent (0:)"),
    Limited("rtt_p95", "ms", False, False, "", True, "p95 {:.3f} ms",
            "milliseconds within which 95 %% of the answers came"),
    Limited("rtt_p99", "ms", False, False, "", False, "p99 {:.3f} ms",
            "milliseconds within which 99 %% of the answers came"),
    Limited("rtt_max", "ms", False, False, "", False, "max {:.3f} ms", "milliseconds within which all answers came"),
    Limited("jitter", "ms", False, False, "", False, "jitter {:.3f} ms",
            "mean difference of a round trip from the one before, in milliseconds"),
    Limited("rate_p99", "", True, True, "", True, "99 % reached {:.1f} Mbit/s",
            "Mbit/s that 99 %% of the good batches reached or beat"),
    Limited("bad", "", False, True, "0:", True, "{} bad", "bad batches (0:)"),
)

Ranges = tuple[str, str]  # a warning and a critical range, as the plugin interface writes them; "" holds everything


# --- limits ---

NUMBER = r"(\d+(?:\.\d*)?|\.\d+)"
PAIR = re.compile(rf"{NUMBER}?:{NUMBER}?", re.ASCII)
RANGE = re.compile(rf"|@?(?:{NUMBER}|~?:{NUMBER}?|{NUMBER}:{NUMBER}?)", re.ASCII)


def ends_of(text: str) -> tuple[float, float]:
    """The ends of a range that is not turned around."""
    low, colon, high = text.rpartition(":")
    return (-float("inf") if low == "~" else float(low or 0), float(high) if high else float("inf"))


def ranges_of(text: str, below: bool) -> Ranges:
    warning, comma, critical = text.partition(",")
    if comma:
        if not (RANGE.fullmatch(warning) and RANGE.fullmatch(critical)):
            raise argparse.ArgumentTypeError(f"'{text}': two ranges, like 10:,5: or @1:3,@2:3")
        for each in (warning, critical):
            if each and not each.startswith("@") and ends_of(each)[0] > ends_of(each)[1]:
                raise argparse.ArgumentTypeError(f"'{text}': the range '{each}' begins behind its end")
        if warning and critical and "@" not in text:
            (low, high), (lowest, highest) = ends_of(warning), ends_of(critical)
            if low < lowest or high > highest:
                raise argparse.ArgumentTypeError(f"'{text}': what is critical would not warn: the second range has to "
                                                 "hold the first")
        return warning, critical
    pair = PAIR.fullmatch(text)
    if not pair or not any(pair.groups()):
        raise argparse.ArgumentTypeError(f"'{text}': two numbers, like 1:5, or one of them, like 1: or :5")
    warning, critical = pair.group(1) or "", pair.group(2) or ""
    if warning and critical and (float(critical) > float(warning) if below else float(critical) < float(warning)):
        order = "small values are the bad ones, so write the larger first" if below else \
            "large values are the bad ones, so write the smaller first"
        raise argparse.ArgumentTypeError(f"'{text}': it would be critical before it warns; {order}")
    side = ":" * below
    return warning and warning + side, critical and critical + side


# --- command line ---

class Parser(argparse.ArgumentParser):
    """Leaves with the status that means unknown: 0 would mean OK, and 2 critical."""

    def error(self, message: str) -> NoReturn:
        self.exit(UNKNOWN, f"VORN UNKNOWN - {one_line(message)}\n")

    def exit(self, status: int = 0, message: str | None = None) -> NoReturn:
        if message:
            print(message, end="")
        sys.exit(UNKNOWN)


def seconds(text: str) -> float:
    value = float(text)
    if not 0 < value < 1e6:
        raise ValueError
    return value


def prometheus_name(text: str) -> str:
    if not text.endswith(".prom"):
        raise argparse.ArgumentTypeError(f"'{text}': the collector reads names that end in .prom")
    return text


def make_parser() -> Parser:
    parser = Parser(prog="vorn-check", allow_abbrev=False, usage="%(prog)s [options] -- VORN-ARGUMENTS", epilog=EPILOG,
                    description="Run vorn once and hold what it measured against limits.",
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    for limited in LIMITS:
        parser.add_argument(limited.option, metavar="LIMIT", help=limited.help)
    parser.add_argument("--timeout", type=seconds, metavar="SECONDS", default=DEFAULT_BOUND_SEC,
                        help="end the run after this long; it is not OK then (%(default)g)")
    parser.add_argument("--program", metavar="FILE", help="the program (vorn in PATH)")
    parser.add_argument("--label", default="", metavar="NAME", help="a name for the Prometheus figures of this check")
    parser.add_argument("--prometheus", type=prometheus_name, metavar="FILE",
                        help="write the figures for the textfile collector too")
    parser.add_argument("--json", action="store_true", help="print one JSON object in place of the line")
    add_version(parser)
    return parser


@dataclasses.dataclass(frozen=True)
class Wanted:
    """What to run and how to judge it."""

    command: list[str]
    limits: dict[str, Ranges]  # by field
    limited: frozenset[str]  # fields that the user limited
    bound_sec: float
    label: str
    prometheus: str | None
    json: bool

    @property
    def arguments(self) -> list[str]:
        return self.command[1:]

    @property
    def target(self) -> str:
        return one_line(program.hosts_of(self.arguments))


def parse(arguments: Sequence[str]) -> Wanted:
    own, rest = program.split_arguments(arguments)
    parser = make_parser()
    given = parser.parse_args(own)
    if not rest:
        parser.error("what vorn is to do stands behind --, for example: -- -e20 10.0.0.1")
    if program.is_monitor(rest) or program.is_trace(rest):
        parser.error("a monitor and a trace have no figures to check")
    streams, limits, limited = program.is_stream(rest), {}, set()
    for each in LIMITS:
        text = getattr(given, each.field)
        if text and each.streams not in (None, streams):
            parser.error(f"{each.option} is for " + ("streams (--client)" if each.streams else "echo requests"))
        try:
            limits[each.field] = ranges_of(each.default if text is None else text, each.below) if (
                each.default or text is not None) else ("", "")
        except argparse.ArgumentTypeError as error:
            parser.error(f"argument {each.option}: {error}")
        limited |= {each.field} if text is not None else set()
    return Wanted([given.program or program.find_program() or "vorn", *rest], limits, frozenset(limited),
                  given.timeout, given.label, given.prometheus, given.json)


# --- judging ---

def described(wanted: Wanted, figures: Figures, told: Sequence[str] = ()) -> str:
    """The figures in words, but for the fields that are told already."""
    parts = []
    if figures.batches:
        parts.append(f"{figures.batches} batches")
    if figures.sent:
        parts.append(f"{figures.answered} of {figures.sent} {'packets' if figures.batches else 'answered'}")
    parts += [each.text.format(value) for each in shown_limits(wanted) if each.field not in told
              and (value := getattr(figures, each.field)) is not None]
    return ", ".join(parts)


def shown_limits(wanted: Wanted) -> list[Limited]:
    return [each for each in LIMITS if each.always or each.field in wanted.limited]


def make_check(wanted: Wanted, figures: Figures, failure: str | None) -> Any:
    """The check of the plugin library."""
    import nagiosplugin

    class Vorn(nagiosplugin.Resource):
        def probe(self) -> Any:
            yield nagiosplugin.Metric("answer", failure)
            for each in shown_limits(wanted):
                value = getattr(figures, each.field)
                if value is not None:
                    yield nagiosplugin.Metric(each.field, round(value, 6), each.unit, min=0)

    class Answer(nagiosplugin.Context):
        def evaluate(self, metric: Any, resource: Any) -> Any:
            return nagiosplugin.Result(nagiosplugin.Critical if metric.value else nagiosplugin.Ok, metric.value)

    class Line(nagiosplugin.Summary):
        def ok(self, results: Any) -> str:
            return f"{wanted.target}: {described(wanted, figures)}"

        def problem(self, results: Any) -> str:
            reasons = [result for result in results if result.state != nagiosplugin.Ok]
            told = [result.metric.name for result in reasons if result.metric]
            return "; ".join(filter(None, [f"{wanted.target}: " + "; ".join(map(str, reasons)),
                                           described(wanted, figures, told)]))

    contexts = [nagiosplugin.ScalarContext(each.field, *wanted.limits[each.field],
                                           fmt_metric=lambda metric, _, text=each.text: text.format(metric.value))
                for each in shown_limits(wanted)]
    return nagiosplugin.Check(Vorn(), Answer("answer"), *contexts, Line())


def add_doubt(check: Any, text: str) -> None:
    """Makes the check unknown, unless it is critical already: that stays true whatever else came."""
    import nagiosplugin
    if check.state != nagiosplugin.Critical:
        check.results.add(nagiosplugin.Result(nagiosplugin.Unknown, one_line(text)))


def one_line(text: str) -> str:
    """Text that a plugin may print: a bar would begin its performance data."""
    return printable(text).replace("|", "/")


# --- output ---

def write_metrics(wanted: Wanted, outcome: Outcome, figures: Figures, status: int) -> str | None:
    """What went wrong, or None."""
    if not wanted.prometheus:
        return None
    from vorn_companions.commands import check_metrics
    labels = check_metrics.Labels(wanted.target, "stream" if program.is_stream(wanted.arguments) else "echo",
                                  wanted.label)
    times = [request.rtt for request in outcome.requests if request.answer == REPLY and request.rtt is not None]
    try:
        check_metrics.write(wanted.prometheus, labels, figures, times, status)
    except OSError as error:
        return f"{wanted.prometheus}: {error.strerror}"
    except ValueError as error:
        return f"{wanted.prometheus}: {error}"
    return None


def print_check(wanted: Wanted, check: Any, figures: Figures) -> None:
    if wanted.json:
        print(json.dumps({"status": check.exitcode, "state": STATES[check.exitcode], "target": wanted.target,
                          "text": check.summary_str, **dataclasses.asdict(figures)}))
    else:
        data = f" | {' '.join(check.perfdata)}" if check.perfdata else ""
        print(f"VORN {STATES[check.exitcode]} - {check.summary_str}{data}")


def check_once(wanted: Wanted, stop: Stop) -> int:
    outcome = check_run.run_bounded(wanted.command, wanted.bound_sec, stop)
    if stop.signal:
        write_metrics(wanted, Outcome(), Figures(), UNKNOWN)
        raise InterruptedError("stopped by a signal")
    figures = check_run.figures_of(outcome, wanted.arguments)
    check = make_check(wanted, figures, check_run.failure(outcome, figures))
    check()
    for text in check_run.doubts(outcome, figures, wanted.bound_sec):
        add_doubt(check, text)
    unwritten = write_metrics(wanted, outcome, figures, check.exitcode)
    if unwritten:
        add_doubt(check, unwritten)
    print_check(wanted, check, figures)
    return int(check.exitcode)


def main(arguments: Sequence[str] | None = None) -> int:
    """Whatever goes wrong is unknown: status 0 belongs to checks that were made and passed."""
    replace_strange_letters()
    wanted = parse(sys.argv[1:] if arguments is None else arguments)
    try:
        with Stop() as stop:  # a run that has begun must be ended, whenever a signal comes
            status = check_once(wanted, stop)
        sys.stdout.flush()
        return status
    except ImportError as error:
        print(f"VORN UNKNOWN - {error.name} is missing: python3-{str(error.name).replace('_', '-')}")
    except InterruptedError as error:
        print(f"VORN UNKNOWN - {error}")
    except Exception as error:  # a fault of ours must not pass for a measurement
        print(f"VORN UNKNOWN - {type(error).__name__}: {one_line(str(error))}")
    return UNKNOWN


if __name__ == "__main__":
    sys.exit(main())
