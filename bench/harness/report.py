"""Results as Markdown, which also reads well on a terminal."""

import datetime

from harness import figures, programs


def grid(titles, lines):
    """A Markdown table with aligned columns."""
    widths = [max(len(line[i]) for line in [titles, *lines]) for i in range(len(titles))]
    rows = [titles, ["-" * width for width in widths], *lines]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows)


def spread_text(spread, digits, scale=1.0):
    if spread is None:
        return "-"
    middle, low, high = (f"{value * scale:.{digits}f}" for value in (spread.median, spread.lowest, spread.highest))
    return middle if low == high else f"{middle} ({low}-{high})"


def case_grid(results, table, case):
    lines = [[row.program] + [spread_text(results.spread(case, row, column.figure), column.digits, column.scale)
                              for column in table.columns] for row in case.rows if results.has(case, row)]
    return grid(["program"] + [column.title for column in table.columns], lines)


COMPARISONS = {"Vorn to the best peer": ("vorn", "peer"), "Vorn to the bare loop": ("vorn", "bare"),
               "the bare loop to the best peer": ("bare", "peer")}


def ratio_grid(results, table, case):
    """Vorn, and the floor it stands on, against the best peer; paired round by round."""
    lines = []
    for figure, more_is_better in table.compared.items():
        found = [figures.ratio(results, table, case, figure, *roles) for roles in COMPARISONS.values()]
        if not any(found):
            continue
        title = next(column.title for column in table.columns if column.figure == figure)
        shown = [f"{spread_text(ratio.spread, 3)} of {ratio.to}" if ratio else "-" for ratio in found]
        lines.append([title, "more" if more_is_better else "less", *shown])
    return grid(["ratio of", "better", *COMPARISONS], lines) if lines else ""


def table_text(results, table):
    parts = [f"## {table.title}", table.about]
    for case in table.cases:
        parts += [f"### {case.title}", case_grid(results, table, case), ratio_grid(results, table, case)]
    return "\n\n".join(part for part in parts if part)


def verdicts(results, table):
    return [verdict for case in table.cases for goal in case.goals
            for verdict in figures.verdicts(results, table, case, goal)]


def verdict_grid(all_results):
    lines = [[table.name, verdict.case, verdict.asked, verdict.reached, "yes" if verdict.met else "**no**"]
             for table, results in all_results for verdict in verdicts(results, table)]
    return grid(["table", "case", "goal", "reached", "met"], lines) if lines else ""


def complaints_text(complaints):
    return "\n".join(f"- {complaint}" for complaint in complaints)


def document(all_results, machine, rounds, complaints):
    """The whole of RESULTS.md."""
    facts = {**machine, **programs.versions(), "date": datetime.date.today().isoformat(), "rounds": str(rounds)}
    parts = [
        "# Benchmark results",
        "Written by `bench/run`. Rows are interleaved round by round; figures are medians, with the lowest and the "
        "highest round in brackets; ratios are taken within each round.",
        grid(["what", "value"], [list(item) for item in facts.items()]),
        "## Goals", verdict_grid(all_results),
    ]
    parts += [table_text(results, table) for table, results in all_results]
    if complaints:
        parts += ["## Runs without figures", complaints_text(complaints)]
    return "\n\n".join(parts) + "\n"
