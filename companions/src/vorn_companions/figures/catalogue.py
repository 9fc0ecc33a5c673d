# SPDX-License-Identifier: MIT
"""The figures: what each is made of, how it reads and how it is drawn."""

import collections.abc
import dataclasses

from vorn_companions.figures import (matrix, matrix_pictures, record_pictures, record_text, recorded, run_pictures,
                                     table_pictures, text)


@dataclasses.dataclass(frozen=True)
class Figure:
    name: str
    sources: tuple  # kinds of files (reader.FILE_KINDS) that it is made of
    help: str
    blocks: collections.abc.Callable  # (items, args): lines and Sheets
    draw: collections.abc.Callable  # (items, args): a picture
    has_data: collections.abc.Callable = lambda items: True


# The first that fits a file and has data in it is its default.
FIGURES = (
    Figure("rate", ("results",), "guaranteed rate: share of the batches against Mbit/s",
           text.rate_text, table_pictures.draw_rate),
    Figure("trend", ("results",), "median, 5 to 95 % band, bad samples and losses by date",
           text.trend_text, table_pictures.draw_trend),
    Figure("histogram", ("histogram",), "batches in bins of 1 Mbit/s",
           text.histogram_text, table_pictures.draw_histogram),
    Figure("batches", ("client",), "rate and buffer consumption batch by batch",
           text.batches_text, run_pictures.draw_batches),
    Figure("echo", ("echo",), "round-trip times and their distribution; hosts of a sweep, routers of a trace",
           text.echo_text, run_pictures.draw_echo),
    Figure("latency", ("store",), "round-trip time and loss over the clock, outages",
           record_text.latency_text, record_pictures.draw_latency, recorded.has_requests),
    Figure("guaranteed", ("store",), "guaranteed rate over the clock, bad batches and losses",
           record_text.guaranteed_text, record_pictures.draw_guaranteed, recorded.has_batches),
    Figure("cdf", ("store", "echo"), "share of the round trips up to a time, of several runs, hosts or labels",
           record_text.cdf_text, record_pictures.draw_cdf, recorded.has_requests),
    Figure("matrix", ("store",), "guaranteed rate, round trip and loss from host to host, the worst pairs",
           matrix.matrix_text, matrix_pictures.draw_matrix, matrix.is_matrix),
)

NAMES = tuple(figure.name for figure in FIGURES)


def named(name):
    return next(figure for figure in FIGURES if figure.name == name)


def fitting(kind, items):
    """The figures that can be made of items of a kind, the default first."""
    fits = [figure for figure in FIGURES if kind in figure.sources]
    return [figure for figure in fits if kind != "store" or figure.has_data(items)] or fits[:1]
