# SPDX-License-Identifier: MIT
"""Tests of results and histogram files: how they are named and grouped, and their rates."""

from collections.abc import Sequence

from vorn_companions.read.records import TestRow
from vorn_companions.read.tables import NO_TAG, SHARES


def shown_tag(row: TestRow) -> str:
    return "no tag" if row.tag == NO_TAG else row.tag


def row_labels(rows: Sequence[TestRow]) -> list[str]:
    """For each row the shortest name that no other row has: the tag, the tag and the date, or the tag and the line."""
    dates = [f"{row.date:%Y-%m-%d %H:%M:%S}" for row in rows]
    tags = ["" if row.tag == NO_TAG else row.tag for row in rows]
    dated = [f"{tag}, {date}" if tag else date for tag, date in zip(tags, dates)]
    places = [f"{shown_tag(row)}, {row.path}:{row.line}" for row in rows]
    return [tag if tag and tags.count(tag) == 1 else date if dated.count(date) == 1 else place
            for tag, date, place in zip(tags, dated, places)]


def rows_by_tag(rows: Sequence[TestRow]) -> dict[str, list[TestRow]]:
    groups: dict[str, list[TestRow]] = {}
    for row in rows:
        groups.setdefault(shown_tag(row), []).append(row)
    return groups


def has_rate(row: TestRow) -> bool:
    """False when every column is 0.0: no batch was good, or none reached 0.05 Mbit/s."""
    return any(row.values)


def rate_at(row: TestRow, share: float) -> float | None:
    """Mbit/s that `share` percent of the row's good batches reached or beat; None when the row does not say."""
    index = SHARES.index(share)
    return row.values[index] if has_rate(row) and index < len(row.values) else None
