"""Results as Markdown, which also reads well on a terminal."""

import datetime
import json
import os
import re
import statistics
import subprocess

from harness.measuring import ROOT

STORE = ROOT / "build" / "bench" / "results.json"
VERSIONS = {"fping": ["fping", "--version"], "ping": ["ping", "-V"], "iperf3": ["iperf3", "--version"],
            "hping3": ["hping3", "--version"], "g++": ["g++", "-dumpfullversion"]}
ROLES = ("vorn", "before", "bare", "peer")


def grid(titles, lines):
    """A Markdown table with aligned columns."""
    widths = [max(len(line[i]) for line in [titles, *lines]) for i in range(len(titles))]
    rows = [titles, ["-" * width for width in widths], *lines]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows)


def spread_text(values, column):
    """The median, and the lowest and the highest round."""
    if not values:
        return "-"
    figures = (statistics.median(values), min(values), max(values))
    middle, low, high = (f"{value * column.scale:.{column.digits}f}" for value in figures)
    return middle if low == high else f"{middle} ({low}-{high})"


def case_text(results, case):
    table = results.table
    lines = [[row.program, *(spread_text(results.values(case, row, column.figure), column)
                             for column in table.columns)] for row in case.rows]
    text = [f"### {case.title}", grid(["program", *(column.title for column in table.columns)], lines)]
    for figure, more_is_better in table.compared.items():
        for row in (row for row in case.rows if row.role == "vorn"):
            ratios = [results.ratio(case, row, figure, role) for role in ROLES[1:]]
            shown = ", ".join(f"{ratio[0]:.3f} of {ratio[1]}" for ratio in ratios if ratio)
            if shown:
                text.append(f"{row.program}, {table.column(figure).title} "
                            f"({'more' if more_is_better else 'less'} is better): {shown}")
    return "\n\n".join(text + [f"**missed:** {goal}" for goal in results.missed(case)[0]])


def table_text(results):
    parts = [f"## {results.table.title}", results.table.about]
    return "\n\n".join([*parts, *(case_text(results, case) for case in results.table.cases)]) + "\n"


# ---- one page of all that was measured last

def page_lines(results):
    """A line for each case: the table's first figure of Vorn and of what it is held against."""
    for case in results.table.cases:
        column = results.table.column(next(iter(results.table.compared)))
        row = next(row for row in case.rows if row.role == "vorn")
        cells = []
        for role in ROLES:
            other = row if role == "vorn" else results.partners(case, row, column.figure, role)
            shown = other and spread_text([results.median(case, other, column.figure)], column)
            cells.append(f"{shown} ({other.program})" if other and role == "peer" else shown or "-")
        missed, count = results.missed(case)
        yield [f"{results.table.name}: {case.title}", column.title, *cells,
               "; ".join(missed) or ("all met" if count else "-")]


def kept():
    """{case: its line} as measured last."""
    return json.loads(STORE.read_text(encoding="utf-8")) if STORE.exists() else {}


def keep(results):
    STORE.write_text(json.dumps({**kept(), **{line[0]: line for line in page_lines(results)}}), encoding="utf-8")


def page(tables):
    lines, titles = kept(), [f"{table.name}: {case.title}" for table in tables for case in table.cases]
    return grid(["case", "figure", "Vorn", "before", "bare loop", "best other tool", "goals"],
                [lines[title] for title in titles if title in lines])


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as table:
        model = re.search(r"model name\s*: (.*)", table.read()).group(1)
    shown = [f"{model}, {os.cpu_count()} cores, Linux {os.uname().release.split('-')[0]}, "
             f"load {os.getloadavg()[0]:.2f} at the start, {datetime.date.today()}"]
    for program, command in VERSIONS.items():
        told = subprocess.run(command, check=False, capture_output=True, text=True)
        shown.append(program + " " + re.search(r"\d[\w.-]+", told.stdout + told.stderr).group(0))
    return ", ".join(shown)
