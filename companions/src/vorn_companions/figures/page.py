# SPDX-License-Identifier: MIT
"""One self-contained page: pictures and figures, for a report."""

import html
import io
import re
from collections.abc import Sequence
from typing import Any

from vorn_companions.figures.sheet import BAR_WIDTH, Block, Sheet

STYLE = """body { font: 15px/1.45 sans-serif; max-width: 75em; margin: 2em auto; padding: 0 1em; color: #222 }
h1, p, .text { overflow-wrap: anywhere } h1 { font-size: 1.6em }
h2 { font-size: 1.25em; margin-top: 2.2em; border-bottom: 1px solid #ccc }
p { margin: 1em 0 0.3em } svg { max-width: 100%; height: auto }
table { border-collapse: collapse; font-size: 0.85em; margin: 0.4em 0 1.2em }
th, td { padding: 0.15em 0.7em; text-align: right; white-space: nowrap } th { border-bottom: 1px solid #888 }
td.text, th.text { text-align: left; max-width: 40em; white-space: normal }
tr:nth-child(even) td { background: #f4f4f4 }
.bar { display: inline-block; height: 0.8em; background: #4a7fb5 }
@media print { h2 { break-before: page } h2.first { break-before: auto } }"""


def table_html(sheet: Sheet) -> str:
    classes = [' class="text"' if width < 0 else "" for _, width in sheet.columns]
    lines = ["<table>"]
    head = "".join(f"<th{kind}>{html.escape(name.strip())}</th>" for (name, _), kind in zip(sheet.columns, classes))
    lines.append(f"<tr>{head}</tr>")
    for number, row in enumerate(sheet.rows):
        if isinstance(row, str):
            cells = f'<td class="text" colspan="{len(classes)}">{html.escape(row.strip())}</td>'
        else:
            cells = "".join(f"<td{kind}>{html.escape(text.strip())}</td>" for text, kind in zip(row, classes))
        if sheet.bars:
            cells += f'<td class="text"><span class="bar" style="width: {sheet.bars[number] * BAR_WIDTH / 3:.1f}em"' \
                     "></span></td>"
        lines.append(f"<tr>{cells}</tr>")
    return "\n".join([*lines, "</table>"])


def block_html(block: Block) -> str:
    if isinstance(block, Sheet):
        return table_html(block)
    return f"<p>{html.escape(block.strip())}</p>" if block.strip() else ""


def picture_html(picture: Any, number: int) -> str:
    """The picture as SVG inside the page; identifiers of several must not meet."""
    text = io.StringIO()
    picture.savefig(text, format="svg", metadata={"Date": None})
    svg = text.getvalue()
    svg = svg[svg.index("<svg"):]
    svg = re.sub(r'\bid="', f'id="f{number}-', svg)
    svg = re.sub(r'(xlink:href="#|url\(#)', rf"\1f{number}-", svg)
    return svg


def page(title: str, sections: Sequence[tuple[Any, Sequence[Block]]]) -> str:
    """The page as text; a section is (picture, blocks), and its heading the first of its blocks."""
    parts = [f'<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n<title>{html.escape(title)}</title>\n'
             f"<style>\n{STYLE}\n</style>\n</head>\n<body>\n<h1>{html.escape(title)}</h1>"]
    for number, (picture, blocks) in enumerate(sections, 1):
        first = ' class="first"' if number == 1 else ""
        parts.append(f"<h2{first}>{html.escape(str(blocks[0]))}</h2>")
        parts.append(picture_html(picture, number))
        parts += filter(None, map(block_html, blocks[1:]))
    return "\n".join([*parts, "</body>\n</html>\n"])
