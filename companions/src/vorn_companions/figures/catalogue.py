# SPDX-License-Identifier: MIT
"""The figures: what each is made of, how it reads and how it is drawn."""

import dataclasses
from collections.abc import Callable, Sequence
from typing import Any

from vorn_companions.figures import batches, cdf, echo, guaranteed, histogram, latency, matrix, packets, rate, trend
from vorn_companions.figures.options import Options
from vorn_companions.figures.sheet import Block
from vorn_companions.read.records import Sources
from vorn_companions.store.database import reading as opened
from vorn_companions.store.reading import has_rows


@dataclasses.dataclass(frozen=True)
class Figure:
    name: str
    kinds: tuple[str, ...]  # fields of Sources that it is made of
    help: str
    text: Callable[[Sources, Options], list[Block]]
    draw: Callable[[Sources, Options], Any]
    has_data: Callable[[Sources], bool]


def has_table(name: str) -> Callable[[Sources], bool]:
    def found(sources: Sources) -> bool:
        for path in sources.stores:
            with opened(path) as store:
                if has_rows(store, name):
                    return True
        return False
    return found


def always(_sources: Sources) -> bool:
    return True


# The first that fits a file and has data in it is its default.
FIGURES: Sequence[Figure] = (
    Figure("rate", ("results",), "guaranteed rate: share of the batches against Mbit/s", rate.text, rate.draw, always),
    Figure("trend", ("results",), "median, 5 to 95 % band, bad samples and losses by date", trend.text, trend.draw,
           always),
    Figure("histogram", ("histograms",), "batches in bins of 1 Mbit/s", histogram.text, histogram.draw, always),
    Figure("batches", ("streams",), "rate and buffer consumption batch by batch", batches.text, batches.draw, always),
    Figure("echo", ("echoes",), "round-trip times and their distribution; hosts of a sweep, routers of a trace",
           echo.text, echo.draw, always),
    Figure("latency", ("stores",), "round-trip time and loss over the clock, outages", latency.text, latency.draw,
           has_table("echo")),
    Figure("guaranteed", ("stores",), "guaranteed rate over the clock, bad batches and losses", guaranteed.text,
           guaranteed.draw, has_table("batch")),
    Figure("cdf", ("stores", "echoes"), "share of the round trips up to a time, of several runs, hosts or labels",
           cdf.text, cdf.draw, lambda sources: bool(sources.echoes) or has_table("echo")(sources)),
    Figure("packets", ("stores", "streams"), "delay variation, runs of loss, reordering and duplicates of streams",
           packets.text, packets.draw, packets.has_data),
    Figure("matrix", ("stores",), "guaranteed rate, round trip and loss from host to host, the worst pairs",
           matrix.text, matrix.draw, lambda sources: matrix.is_matrix(sources.stores)),
)

NAMES = tuple(figure.name for figure in FIGURES)


def named(name: str) -> Figure:
    return next(figure for figure in FIGURES if figure.name == name)


def fitting(kind: str, sources: Sources) -> list[Figure]:
    """The figures that can be made of the sources of a kind, the default first."""
    fits = [figure for figure in FIGURES if kind in figure.kinds]
    return [figure for figure in fits if figure.has_data(sources)] or fits[:1]
