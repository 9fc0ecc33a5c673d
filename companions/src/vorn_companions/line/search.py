# SPDX-License-Identifier: MIT
"""The search for the highest rate that a line carries."""

from collections.abc import Iterable, Sequence

from vorn_companions.line.result import Lossless

# Tried first below the capacity, from a hair to half of it: a line with a queue takes the first of them, one that is
# policed or lossy shows soon in which region the answer is.
FIRST_SHARES = (0.995, 0.97, 0.9, 0.7, 0.4)
CLOSE_SHARE = 0.005  # of the capacity: nearer is not worth a trial


def next_rate(capacity: float, trials: Sequence[tuple[float, bool]]) -> float | None:
    """The rate to try after these trials (rate, carried), Mbit/s; None: the search is over."""
    best = highest_carried(trials)
    failed = min((rate for rate, carried in trials if not carried and rate > best), default=None)
    if not trials:
        return capacity * FIRST_SHARES[0]
    if failed is None:
        return None
    if best == 0:
        lower = [share * capacity for share in FIRST_SHARES if share * capacity < failed * (1 - CLOSE_SHARE)]
        return lower[0] if lower else None
    return (best + failed) / 2 if failed - best > 2 * CLOSE_SHARE * capacity else None


def highest_carried(trials: Sequence[tuple[float, bool]]) -> float:
    """0: none was."""
    return max((rate for rate, carried in trials if carried), default=0.0)


def answer_of(trials: Iterable[Lossless]) -> Lossless:
    """The highest that was carried; of none, the lowest that was tried."""
    return max(trials, key=lambda trial: trial.tried_mbps if trial.mbps is not None else -trial.tried_mbps)
