# SPDX-License-Identifier: MIT
"""Rows of results and histogram files."""

import datetime
import math
import re
from collections.abc import Callable
from typing import TypeVar

from vorn_companions.read.records import TestRow
from vorn_companions.words import Unreadable, printable

TABLE_LINE = re.compile(r"(?:Vorn Version|\d+\.\d+)([,\t])")
TEST_TIME = re.compile(r"\s*(-?\d+\.\d+)s$")
DATE_FORMAT = "%a %b %d %H:%M:%S %Y"
PROTOCOLS = ("udp", "tcp", "icmp")
NO_TAG = "NULL"
COLUMNS = ("Bad Samples", "Packets Lost", "Packets Lost(Bad Samples)", "Batches", "Batch Size", "Frame IP Length",
           "usecs between frames")  # behind the protocol

Number = TypeVar("Number", int, float)

# The percentile columns of a results file: how many percent of the good batches reached or beat the rate.
SHARES = [float(share) for share in range(100)] + [99 + tenth / 10 for tenth in range(1, 11)]


def split_fields(path: str, line: int, text: str) -> tuple[list[str], str]:
    """The fields of a table line. Every field ends in the separator, and spreadsheets pad with more of them."""
    match = TABLE_LINE.match(text)
    if not match:
        raise Unreadable(path, line, "not a row of a results or histogram file")
    separator = match.group(1)
    return text.rstrip(separator).split(separator), separator


def header_kind(path: str, line: int, fields: list[str]) -> str:
    if fields[-1].endswith("%"):
        return "results"
    if fields[-1].strip().isdigit():
        return "histograms"
    raise Unreadable(path, line, f"the header ends in '{printable(fields[-1])}', neither a percentile nor a bin")


def protocol_indices(fields: list[str]) -> list[int]:
    """Where a protocol stands: a file name with separators in it moves it to the right."""
    return [index for index in range(2, len(fields) - 9)
            if fields[index] in PROTOCOLS and TEST_TIME.match(fields[index + 8])]


def read_number(path: str, line: int, column: str, text: str, convert: Callable[[str], Number]) -> Number:
    try:
        return convert(text)
    except ValueError:
        raise Unreadable(path, line, f"{column}: '{printable(text)}' is not a number") from None


def read_date(path: str, line: int, text: str) -> datetime.datetime:
    try:
        return datetime.datetime.strptime(text.strip(), DATE_FORMAT)
    except ValueError:
        raise Unreadable(path, line,
                         f"Date: '{printable(text)}' is not a date like 'Mon Jan  5 09:30:00 2026'") from None


def tag_length(rest: list[str], kind: str, good_batches: tuple[int, int]) -> int | None:
    """How many of the fields after the date are the tag: more than one when it holds separators. None when unclear.

    A results row ends in a known number of percentiles, or is cut short. The counts of a histogram row add up to
    the good batches.
    """
    if kind == "results":
        return max(1, len(rest) - len(SHARES))
    last_name = max(index for index, field in enumerate(rest) if index == 0 or not is_count(field))
    return next((start for start in range(last_name + 1, len(rest) + 1)
                 if sum(map(int, rest[start:])) in good_batches), None)


def is_count(field: str) -> bool:
    return field.isascii() and field.isdigit()


def read_row(path: str, line: int, fields: list[str], separator: str, kind: str) -> TestRow:
    protocols = protocol_indices(fields)
    if not protocols:
        raise Unreadable(path, line, "the row does not hold the columns from 'Vorn Version' to 'Date'")
    if len(protocols) > 1:
        raise Unreadable(path, line, "two rows on one line: the first was cut off")
    protocol = protocols[0]
    settings = [read_number(path, line, column, fields[protocol + 1 + index], int)
                for index, column in enumerate(COLUMNS)]
    bad, lost, lost_in_bad, batches, batch_size, ip_length, delay_usec = settings
    rest = fields[protocol + 10:] or [NO_TAG]
    # A test that ends by its count names the good batches, one that ends by its duration counts the bad ones in.
    start = tag_length(rest, kind, (batches, batches - bad))
    if start is None:
        raise Unreadable(path, line, f"the counts do not add up to the good batches: {batches} batches, {bad} bad")
    convert = float if kind == "results" else int
    values = [read_number(path, line, f"value {index + 1}", text, convert) for index, text in enumerate(rest[start:])]
    if kind == "results" and not values:
        raise Unreadable(path, line, "the row holds no percentile")
    if not all(math.isfinite(value) for value in values):
        raise Unreadable(path, line, "the row holds a rate that is not finite")
    return TestRow(path, line, printable(separator.join(fields[1:protocol])), fields[protocol], bad, lost, lost_in_bad,
                   batches, batch_size, ip_length, delay_usec, float(fields[protocol + 8].strip().removesuffix("s")),
                   read_date(path, line, fields[protocol + 9]), printable(separator.join(rest[:start])), values)


def is_whole(text: str, kind: str) -> bool:
    """Whether a row that no newline ends is whole. A number cut in the middle still reads like one."""
    if not text.endswith((",", "\t")):
        return False
    fields, _ = split_fields("", 0, text)
    protocols = protocol_indices(fields)
    return kind == "histograms" or bool(protocols) and len(fields) - protocols[-1] - 11 >= len(SHARES)
