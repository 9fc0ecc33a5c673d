"""Measures Vorn beside the tools a user would take instead, beside bare loops that only make the system calls the job
needs, and against a capture. Everything is sent over loopback or between two namespaces made for the purpose.

Rounds go through all tables asked for, so that a slow minute of the machine does not fall on one row alone. Figures are
medians, with the lowest and the highest round in brackets; ratios are taken within each round. --page prints a line for
each case as it was measured last. What ends a run early leaves the rounds before.
"""

import argparse
import contextlib
import os
import signal
import sys

from harness import report
from harness.figures import Results, with_before
from harness.lab import FAR_CPU, standing_lab
from harness.measuring import NoFigures
from harness.tables import TABLES as SPEED_TABLES
from harness.truth_tables import TRUTH_TABLES

TABLES = {**TRUTH_TABLES, **SPEED_TABLES}


def run_round(lab, results, number):
    """Each round begins with another row, so that none is always first."""
    for case in results.table.cases:
        first = number % len(case.rows)
        lab.answer_from_cpu(FAR_CPU if case.setting.get("answers") == "other core" else None)
        for row in case.rows[first:] + case.rows[:first]:
            try:
                results.add(case, row, results.table.job(lab, case, row))
            except NoFigures as reason:
                results.add(case, row, {})
                print(f"no figures: {case.title}, {row.program}: {str(reason).strip()[-200:]}", file=sys.stderr)


def read_arguments():
    parser = argparse.ArgumentParser(prog="bench/run", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("tables", nargs="*", metavar="TABLE", help=f"of {', '.join(TABLES)}; without one, all of them")
    parser.add_argument("--case", default="", help="only cases whose title contains this")
    parser.add_argument("--before", default="", metavar="PATH", help="an earlier Vorn, for rows beside those of this")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--quick", action="store_true", help="shorter runs, to try the benchmark itself")
    parser.add_argument("--page", action="store_true", help="measure nothing, print the page of all that was")
    arguments = parser.parse_args()
    if unknown := set(arguments.tables) - set(TABLES):
        parser.error(f"no such table: {', '.join(unknown)}")
    return arguments


def main():
    arguments, vorn = read_arguments(), os.path.abspath(os.environ["VORN"])
    tables = [TABLES[name](vorn, arguments.quick) for name in arguments.tables or TABLES]
    if arguments.page:
        print(report.page(tables))
        return
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    machine = report.machine()
    for table in tables:
        table.cases[:] = [with_before(case, vorn, os.path.abspath(arguments.before)) if arguments.before else case
                          for case in table.cases if arguments.case in case.title]
    all_results = [Results(table) for table in tables]
    with contextlib.suppress(KeyboardInterrupt), standing_lab() as lab:
        for number in range(arguments.rounds):
            for results in all_results:
                if number < (results.table.rounds or arguments.rounds):
                    print(f"round {number + 1}: {results.table.name}", file=sys.stderr, flush=True)
                    run_round(lab, results, number)
                    report.keep(results)
    print(machine)
    for results in all_results:
        print(report.table_text(results))


if __name__ == "__main__":
    main()
