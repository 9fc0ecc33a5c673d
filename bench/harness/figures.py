"""From the figures of single runs to medians, spreads, paired ratios and verdicts."""

import dataclasses
import statistics

from harness.tables import NEAR_CEILING, PACED_CEILING


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


def row_of_role(case, role):
    return next((row for row in case.rows if row.role == role), None)


def best_peer(results, case, figure, more_is_better):
    peers = [(spread.median, row) for row in case.rows if row.role == "peer"
             if (spread := results.spread(case, row, figure))]
    if not peers:
        return None
    return (max if more_is_better else min)(peers, key=lambda peer: peer[0])[1]


def compared_row(results, table, case, figure, role):
    if role == "peer":
        return best_peer(results, case, figure, table.compared[figure])
    return row_of_role(case, role)


def ratio(results, table, case, figure, of, to):
    """The figure of one role ("vorn", "bare") over that of another ("peer", "bare"), round by round; None when one is
    missing."""
    row, other = (compared_row(results, table, case, figure, role) for role in (of, to))
    if row is None or other is None:
        return None
    spread = results.paired(case, row, other, figure)
    return Ratio(other.program, spread) if spread else None


def verdict(results, table, case, goal):
    """None when there is nothing to judge by."""
    if goal.against == "bare unless ceiling":
        return ceiling_verdict(results, table, case, goal)
    if goal.against == "":
        return own_figure_verdict(results, table, case, goal)
    found = ratio(results, table, case, goal.figure, "vorn", goal.against)
    return found and judged(table, case, goal, found.spread.median, f"of {found.to}")


def own_figure_verdict(results, table, case, goal):
    vorn = row_of_role(case, "vorn")
    spread = vorn and results.spread(case, vorn, goal.figure)
    if not spread:
        return None
    # Nothing may be lost in any round; what is measured with noise is judged by its median.
    value = spread.highest if goal.limit == 0 else spread.median
    return judged(table, case, goal, value, "")


def ceiling_verdict(results, table, case, goal):
    vorn, bare = row_of_role(case, "vorn"), row_of_role(case, "bare")
    ours, theirs = (row and results.spread(case, row, goal.figure) for row in (vorn, bare))
    if not ours or not theirs:
        return None
    if theirs.median < PACED_CEILING:
        return verdict(results, table, case, dataclasses.replace(goal, against="bare"))
    asked = f"packets/s: at least {NEAR_CEILING / 1e6:.2f} M (one packet per microsecond is the most)"
    return Verdict(case.title, asked, f"{ours.median / 1e6:.3f} M", ours.median >= NEAR_CEILING)


def judged(table, case, goal, value, unit):
    title = next(column.title for column in table.columns if column.figure == goal.figure)
    met = value >= goal.limit if goal.at_least else value <= goal.limit
    asked = f"{title}: at {'least' if goal.at_least else 'most'} {goal.limit:.4g} {unit}".rstrip()
    return Verdict(case.title, asked, f"{value:.4g}", met)
