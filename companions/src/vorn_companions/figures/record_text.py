# SPDX-License-Identifier: MIT
"""The figures of records as text: lines and Sheets."""

from vorn_companions.figures.recorded import (GUARANTEED_SHARES, distributions, guaranteed, latency, local_time, loss_percent, point)
from vorn_companions.figures.sheet import Sheet, cell
from vorn_companions.figures.text import width_of
from vorn_companions.words import printable

TEXT_INTERVALS = 24
MOST_OUTAGES = 20
PERCENTS = (0, 5, 50, 90, 95, 99, 99.9, 100)


def duration(usec):
    seconds = usec / 1e6
    for limit, unit, name in ((2, 0.001, "ms"), (120, 1, "s"), (7200, 60, "min"), (172800, 3600, "h")):
        if seconds < limit:
            return f"{seconds / unit:.4g} {name}"
    return f"{seconds / 86400:.4g} days"


def time_text(usec, grid):
    moment = local_time(usec)
    return f"{moment:%Y-%m-%d %H:%M:%S}" + (f".{moment.microsecond // 1000:03}" if grid.width_usec < 1000000 else "")


def outage_blocks(outages, grid):
    if not outages:
        return []
    longest = sorted(outages, key=lambda outage: outage.begin_usec - outage.end_usec)[:MOST_OUTAGES]
    rows = [[time_text(outage.begin_usec, grid), time_text(outage.end_usec, grid),
             duration(outage.end_usec - outage.begin_usec), str(outage.requests)]
            for outage in sorted(longest, key=lambda outage: outage.begin_usec)]
    width = 2 + max(len(row[0]) for row in rows)
    which = f" (the {MOST_OUTAGES} longest of {len(outages)})" if len(outages) > MOST_OUTAGES else ""
    return [f"  outages: three requests in a row or more without an answer{which}",
            Sheet([("from", -width), ("to", -(width - 2)), ("for", 12), ("requests", 10)], rows, "  ")]


def latency_text(paths, args):
    history = latency(paths, args, TEXT_INTERVALS, whole=True)
    blocks = [f"Latency over time, in intervals of {duration(history.grid.width_usec)} (local time)"]
    if history.without_line:
        blocks.append(f"{history.without_line} requests have no line (-s, -m) and are not counted")
    for series in history.series:
        blocks += ["", f"{printable(series.label)}: {series.counted + series.missing} requests, {series.missing} lost "
                   f"({loss_percent(series.counted, series.missing):.3g} %), {len(series.outages)} outages"]
        blocks.append(Sheet([("", -24), *((name, 10) for name in ("min", "p5", "p50", "p95", "p99", "max"))],
                            [["round trip, ms", *(cell(point(series.ordered, percent), 3)
                                                  for percent in (0, 5, 50, 95, 99, 100))]], "  "))
        rows = [[time_text(each.start_usec, history.grid), str(each.counted), str(each.missing),
                 f"{loss_percent(each.counted, each.missing):.2f}", *(cell(value, 3) for value in each.points)]
                for each in series.intervals]
        blocks.append(Sheet([("interval from", -24), ("answers", 10), ("lost", 8), ("lost %", 8), ("p5", 10),
                             ("median", 10), ("p95 ms", 10)], rows, "  "))
        blocks += outage_blocks(series.outages, history.grid)
    return blocks


def guaranteed_text(paths, args):
    history = guaranteed(paths, args, TEXT_INTERVALS)
    blocks = ["Guaranteed rate over time: Mbit/s that this share of the good batches reached or beat, in intervals of "
              f"{duration(history.grid.width_usec)} (local time)"]
    for series in history.series:
        blocks += ["", f"{printable(series.label)}: {series.counted + series.missing} batches, {series.missing} bad"]
        rows = [[time_text(each.start_usec, history.grid), str(each.counted), str(each.missing),
                 str(each.packets_lost), *map(cell, each.points)] for each in series.intervals]
        blocks.append(Sheet([("interval from", -24), ("good", 8), ("bad", 8), ("pkts lost", 11),
                             *((f"{share} %", 9) for share in GUARANTEED_SHARES)], rows, "  "))
    return blocks


def cdf_text(items, args):
    found = distributions(items, args)
    width = width_of([printable(each.label) for each in found])
    rows = [[printable(each.label), str(len(each.ordered)),
             f"{loss_percent(len(each.ordered), each.lost):.2f}",
             *(cell(point(each.ordered, percent), 3) for percent in PERCENTS)] for each in found]
    return ["Round trips: ms that this share of the answers did not exceed",
            Sheet([("", -width), ("answers", 10), ("lost %", 8), *((f"{percent:g} %", 10) for percent in PERCENTS)],
                  rows)]
