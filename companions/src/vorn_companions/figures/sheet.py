# SPDX-License-Identifier: MIT
"""Figures as lines and tables, for a terminal and for a page."""

import dataclasses

BAR_WIDTH = 40


@dataclasses.dataclass
class Sheet:
    """A table. Columns: (heading, width), the width negative for text at its left. A row is cells, or one text."""

    columns: list
    rows: list
    indent: str = ""
    bars: list | None = None  # per row a share of the largest, 0 to 1, drawn behind it
    heading: bool = True


def cell(value, decimals=1):
    return "-" if value is None else f"{value:.{decimals}f}"


def bar(share):
    """At least one mark for whatever is not zero: rare events are what the reader looks for."""
    return "#" * (max(1, round(BAR_WIDTH * share)) if share > 0 else 0)


def aligned(texts, columns):
    return "".join(f"{text:<{-width}}" if width < 0 else f"{text:>{width}}" for text, (_, width) in zip(texts, columns))


def text_lines(block):
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


def print_blocks(blocks):
    for block in blocks:
        for line in text_lines(block):
            print(line)
