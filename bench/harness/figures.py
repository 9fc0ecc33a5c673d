"""The form of tables, and the way from the figures of single runs to medians, paired ratios and missed goals."""

import dataclasses
import statistics
from typing import Callable


@dataclasses.dataclass(frozen=True)
class Row:
    program: str  # as shown
    role: str  # "vorn", "before" (an earlier vorn), "bare" (our floor), "peer", or "mixed" (never compared with)
    command: str
    output: str = ""  # whose way of reporting to read
    far_end: str = ""  # who answers, see measuring.far_end
    vorn: str = ""  # the program that takes part, if one does
    endless: bool = False  # it runs until it is interrupted
    first_burst: int = 1  # packets of the first release of a paced stream
    stream: tuple = ()  # of a captured packet that belongs to what is judged: whether it is UDP, its kind or port
    sends_from_far: bool = False  # the stream is the far end's


@dataclasses.dataclass(frozen=True)
class Column:
    figure: str
    title: str
    digits: int
    scale: float = 1.0


@dataclasses.dataclass(frozen=True)
class Goal:
    """`figure` of each Vorn row against that of `against` ("peer": the best of them, "bare", "before", the first word
    of a row, or "" for the figure itself): at least or at most `limit`."""

    figure: str
    against: str
    limit: float
    at_least: bool = True


@dataclasses.dataclass(frozen=True)
class Case:
    title: str
    rows: list
    setting: dict = dataclasses.field(default_factory=dict)
    goals: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass(frozen=True)
class Table:
    name: str
    title: str
    about: str
    columns: list
    compared: dict  # figure -> True when more is better; the first stands on the page of results
    cases: list
    job: Callable
    rounds: int = 0  # 0: as many as asked for

    def column(self, figure):
        return next(column for column in self.columns if column.figure == figure)


def with_before(case, vorn, before):
    """The case with a second row for each of Vorn's, of an earlier Vorn."""
    def replaced(row):
        return dataclasses.replace(row, program=f"before: {row.program}", role="before", vorn=before,
                                   command=row.command.replace(vorn, before))
    rows = [each for row in case.rows for each in ([row, replaced(row)] if row.role == "vorn" else [row])]
    return dataclasses.replace(case, rows=rows)


class Results:
    """Every figure of every run of a table."""

    def __init__(self, table):
        self.table, self.runs = table, {}

    def add(self, case, row, figures):
        self.runs.setdefault((case.title, row.program), []).append(figures)

    def values(self, case, row, figure):
        return [run[figure] for run in self.runs.get((case.title, row.program), []) if run.get(figure) is not None]

    def median(self, case, row, figure):
        values = self.values(case, row, figure)
        return statistics.median(values) if values else None

    def partners(self, case, row, figure, role):
        """The row that the figure of `row` is held against: the best of the peers, or the one of the role."""
        if role == "before":
            found = [other for other in case.rows if other.program == f"before: {row.program}"]
        else:
            found = [other for other in case.rows if role in (other.role, other.program.split()[0])]
        found = [other for other in found if self.values(case, other, figure)]
        better = max if self.table.compared.get(figure) else min
        if role == "peer" and found:
            return better(found, key=lambda other: self.median(case, other, figure))
        return found[0] if found else None

    def ratio(self, case, row, figure, role):
        """(the median of the ratios within each round, the other row's program), or None."""
        other = self.partners(case, row, figure, role)
        if not other:
            return None
        pairs = zip(self.runs.get((case.title, row.program), []), self.runs[case.title, other.program])
        ratios = [mine[figure] / its[figure] for mine, its in pairs if mine.get(figure) is not None and its.get(figure)]
        return (statistics.median(ratios), other.program) if ratios else None

    def missed(self, case):
        """The goals that were not reached, each in words, and how many there were."""
        missed, count = [], 0
        for goal in case.goals:
            for row in case.rows:
                if row.role != "vorn" or not (reached := self._reached(case, row, goal)):
                    continue
                value, of = reached
                count += 1
                if value < goal.limit if goal.at_least else value > goal.limit:
                    column = self.table.column(goal.figure)
                    scale, sign = 1 if of else column.scale, "at least" if goal.at_least else "at most"
                    missed.append(f"{column.title} {value * scale:.4g}{of}, goal {sign} {goal.limit * scale:.4g}")
        return missed, count

    def _reached(self, case, row, goal):
        if goal.against:
            ratio = self.ratio(case, row, goal.figure, goal.against)
            return ratio and (ratio[0], f" of {ratio[1]}")
        values = self.values(case, row, goal.figure)
        # Nothing may be lost in any round; what is measured with noise is judged by its median.
        return values and (max(values) if goal.limit == 0 else statistics.median(values), "")
