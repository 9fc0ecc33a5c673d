"""From the figures of single runs to medians, spreads, paired ratios and verdicts."""

import dataclasses
import statistics



@dataclasses.dataclass(frozen=True)
class Spread:
    median: float
    lowest: float
    highest: float


@dataclasses.dataclass(frozen=True)
class Ratio:
    to: str  # the program's name
    spread: Spread


@dataclasses.dataclass(frozen=True)
class Verdict:
    case: str
    asked: str
    reached: str
    met: bool


class Results:
    """Every figure of every run: results[case title, program] is a list with one dictionary per round."""

    def __init__(self):
        self.runs = {}

    def add(self, case, row, figures):
        self.runs.setdefault((case.title, row.program), []).append(figures)

    def has(self, case, row):
        return (case.title, row.program) in self.runs

    def spread(self, case, row, figure):
        values = [run[figure] for run in self.runs.get((case.title, row.program), []) if figure in run]
        return spread_of(values)

    def paired(self, case, row, other, figure):
        """The ratio of two rows, round by round."""
        ours, theirs = (self.runs.get((case.title, which.program), []) for which in (row, other))
        ratios = [mine[figure] / its[figure] for mine, its in zip(ours, theirs)
                  if figure in mine and its.get(figure)]
        return spread_of(ratios)


def spread_of(values):
    return Spread(statistics.median(values), min(values), max(values)) if values else None


def row_of(case, role_or_name):
    """The first row of the role, or whose program's first word is the name."""
    return next((row for row in case.rows if role_or_name in (row.role, row.program.split()[0])), None)


def best_peer(results, case, figure, more_is_better):
    peers = [(spread.median, row) for row in case.rows if row.role == "peer"
             if (spread := results.spread(case, row, figure))]
    if not peers:
        return None
    return (max if more_is_better else min)(peers, key=lambda peer: peer[0])[1]


def compared_row(results, table, case, figure, role_or_name):
    if role_or_name == "peer":
        return best_peer(results, case, figure, table.compared[figure])
    return row_of(case, role_or_name)


def ratio(results, table, case, figure, of, to):
    """The figure of one role ("vorn", "bare") over that of another ("peer", "bare"), round by round; None when one is
    missing."""
    row, other = (compared_row(results, table, case, figure, role) for role in (of, to))
    return row and other and ratio_of_rows(results, case, figure, row, other)


def ratio_of_rows(results, case, figure, row, other):
    spread = results.paired(case, row, other, figure)
    return Ratio(other.program, spread) if spread else None


def verdicts(results, table, case, goal):
    """One for each Vorn row; none where there is nothing to judge by."""
    rows = [row for row in case.rows if row.role == "vorn"]
    found = [verdict(results, table, case, goal, row) for row in rows]
    if len(rows) > 1:
        found = [each and dataclasses.replace(each, case=f"{each.case}, {row.program}")
                 for each, row in zip(found, rows)]
    return [each for each in found if each]


def verdict(results, table, case, goal, row):
    if goal.against == "":
        return own_figure_verdict(results, table, case, goal, row)
    other = compared_row(results, table, case, goal.figure, goal.against)
    found = other and ratio_of_rows(results, case, goal.figure, row, other)
    return found and judged(table, case, goal, found.spread.median, f"of {found.to}")


def own_figure_verdict(results, table, case, goal, row):
    spread = results.spread(case, row, goal.figure)
    if not spread:
        return None
    # Nothing may be lost in any round; what is measured with noise is judged by its median.
    value = spread.highest if goal.limit == 0 else spread.median
    return judged(table, case, goal, value, "")


def judged(table, case, goal, value, unit):
    column = next(column for column in table.columns if column.figure == goal.figure)
    met = value >= goal.limit if goal.at_least else value <= goal.limit
    scale = 1 if goal.against else column.scale
    asked = f"{column.title}: at {'least' if goal.at_least else 'most'} {goal.limit * scale:.4g} {unit}".rstrip()
    return Verdict(case.title, asked, f"{value * scale:.4g}", met)
