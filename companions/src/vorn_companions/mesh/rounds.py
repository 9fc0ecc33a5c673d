# SPDX-License-Identifier: MIT
"""Who meets whom when."""

from collections.abc import Sequence


def rounds(count: int) -> list[list[tuple[int, int]]]:
    """Every pair of so many hosts once, as rounds of pairs of which no two share a host: n-1 rounds, n for an odd n.

    The circle method: the first host keeps its place, the others move on by one place from round to round, and those
    who face each other are a pair. Whoever faces the empty place has a pause.
    """
    ring: Sequence[int] = range(count + count % 2)
    half = len(ring) // 2
    found = []
    for _ in ring[1:]:
        facing = zip(ring[:half], reversed(ring[half:]))
        found.append([(first, second) for first, second in facing if count not in (first, second)])
        ring = [ring[0], ring[-1], *ring[1:-1]]
    return [pairs for pairs in found if pairs]
