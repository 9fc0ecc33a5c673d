# SPDX-License-Identifier: MIT
"""The definitions that all figures share: percentiles, guaranteed rates, losses, bins, and where a scale ends.

A percentile is the smallest measured value that at least so many percent of the values do not exceed (the inverse of
the cumulative distribution, type 1 of Hyndman and Fan): never a value that nobody measured.
"""

from collections.abc import Sequence
from typing import Any

import numpy
import numpy.typing

Values = Sequence[float] | numpy.typing.NDArray[Any]
Floats = numpy.typing.NDArray[numpy.float64]


def percentiles(values: Values, percents: Sequence[float]) -> list[float | None]:
    """In the order of `percents`; None without a value."""
    if len(values) == 0:
        return [None] * len(percents)
    # Shares are no binary fractions: 0.999 times 1000 must not come out above 999.
    shares = numpy.asarray(percents) / 100 * (1 - 1e-12)
    return [float(point) for point in numpy.quantile(values, shares, method="inverted_cdf")]


def percentile(values: Values, percent: float) -> float | None:
    return percentiles(values, [percent])[0]


def guaranteed(rates: Values, shares: Sequence[float]) -> list[float | None]:
    """The rates that so many percent of the rates reached or beat; None without a rate."""
    return [None if point is None else -point for point in percentiles(-numpy.asarray(rates, float), shares)]


def loss_percent(sent: int, missing: int) -> float:
    return 100 * missing / sent if sent else 0.0


# --- bins ---

def is_wide(values: Values) -> bool:
    """True when the values span so much that a linear scale would press most of them flat."""
    return len(values) > 0 and min(values) > 0 and bool(max(values) > 20 * min(values))


def edges_over(values: Values, bins: int) -> Floats:
    """Bin edges: even, or growing when the scale is logarithmic."""
    low, high = float(min(values)), float(max(values))
    if is_wide(values):
        edges = numpy.geomspace(low, high, bins + 1)
    elif high - low < 1e-9:
        edges = numpy.array([low - 0.05, high + 0.05])
    else:
        edges = numpy.linspace(low, high, bins + 1)
    return edges


def bin_counts(values: Values, edges: Floats) -> list[int]:
    return [int(count) for count in numpy.histogram(values, edges)[0]]


def shares_of_largest(values: Sequence[float]) -> list[float]:
    largest = max(values, default=0)
    return [value / largest if largest > 0 else 0.0 for value in values]


# --- what lies far outside ---

def scale_end(values: Values, percent: float = 98) -> float | None:
    """Where a scale from 0 may end so that a stray value does not flatten the rest; None when it may show all."""
    if len(values) < 3:
        return None
    ordered = numpy.sort(values)
    usual = percentile(ordered, percent) if len(ordered) >= 50 else float(ordered[-2])
    return 1.25 * usual if usual and usual > 0 and ordered[-1] > 3 * usual else None


def outside_text(values: Values, end: float, unit: str) -> str:
    """What a scale that ends at `end` leaves out."""
    beyond = [value for value in values if value > end]
    return f"{len(beyond)} beyond the scale, up to {max(beyond):g} {unit}"
