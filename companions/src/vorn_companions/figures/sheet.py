# SPDX-License-Identifier: MIT
"""Figures as lines and tables, for a terminal, for a page and for a spreadsheet."""

import csv
import dataclasses
import io
from collections.abc import Iterable, Sequence

BAR_WIDTH = 40


@dataclasses.dataclass
class Sheet:
    """A table. Columns: (heading, width), the width negative for text at its left. A row is cells, or one text."""

    columns: Sequence[tuple[str, int]]
    rows: Sequence[Sequence[str] | str]
    indent: str = ""
    bars: Sequence[float] | None = None  # per row a share of the largest, 0 to 1, drawn behind it
    heading: bool = True


Block = str | Sheet  # a line, or a table


def cell(value: float | None, decimals: int = 1) -> str:
    return "-" if value is None else f"{value:.{decimals}f}"


def width_of(labels: Iterable[str]) -> int:
    return max([12, *map(len, labels)])


def bar(share: float) -> str:
    """At least one mark for whatever is not zero: rare events are what the reader looks for."""
    return "#" * (max(1, round(BAR_WIDTH * share)) if share > 0 else 0)


def aligned(texts: Iterable[str], columns: Sequence[tuple[str, int]]) -> str:
    return "".join(f"{text:<{-width}}" if width < 0 else f"{text:>{width}}" for text, (_, width) in zip(texts, columns))


def text_lines(block: Block) -> list[str]:
    """The lines of a block: of a text itself, or of a Sheet."""
    if isinstance(block, str):
        return [block]
    lines = [aligned([heading for heading, _ in block.columns], block.columns)] if block.heading else []
    for number, row in enumerate(block.rows):
        line = row if isinstance(row, str) else aligned(row, block.columns)
        if block.bars:
            line += "  " + bar(block.bars[number])
        lines.append(line.rstrip() if block.bars is not None else line)
    return [block.indent + line for line in lines]


def csv_text(blocks: Iterable[Block]) -> str:
    """The tables behind a figure; the line above each says what it is of."""
    out = io.StringIO()
    writer = csv.writer(out, lineterminator="\n")
    for block in blocks:
        if isinstance(block, str):
            writer.writerows([[block.strip()]] if block.strip() else [])
        else:
            writer.writerow([heading.strip() for heading, _ in block.columns])
            writer.writerows([row.strip()] if isinstance(row, str) else [text.strip() for text in row]
                             for row in block.rows)
    return out.getvalue()
