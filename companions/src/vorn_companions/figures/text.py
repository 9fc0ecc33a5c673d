# SPDX-License-Identifier: MIT
"""The figures of files and saved output as text: each gives a list of lines and Sheets."""

import math

from vorn_companions.figures.computed import (NO_ANSWER, NO_LINE, bin_counts, bin_width, echo_counts, good_buffers, good_rates,
                              has_rate, histograms, host_rows, joined_bins, names_hosts, percentile, rate_at,
                              rate_lines, round_trips, rtt_edges, run_labels, shown_tag, timeouts, used_bins)
from vorn_companions.read.records import Run
from vorn_companions.figures.sheet import Sheet, cell

TEXT_GROUPS = 20
SHARES_IN_TEXT = (0.0, 50.0, 90.0, 95.0, 98.0, 99.0, 99.5, 99.9, 100.0)
MOST_HOST_ROWS = 1000


def width_of(labels):
    return max([12, *map(len, labels)])


def rate_text(rows, args):
    lines = rate_lines(rows, args.by)
    width = width_of(lines)
    table = []
    for label, line in lines.items():
        median_of = {share: median for share, _, median, _ in line}
        table.append([label, *(cell(median_of.get(share)) for share in SHARES_IN_TEXT)] if line
                     else f"{label:{width}}  no rate: every column is 0.0")
    return ["Guaranteed rate: Mbit/s that this share of the good batches reached or beat",
            Sheet([("test", -width), *((f"{share:g} %", 8) for share in SHARES_IN_TEXT)], table)]


def trend_text(rows, _args):
    rows = sorted(rows, key=lambda row: row.date)
    width = width_of(map(shown_tag, rows))
    table = []
    for row in rows:
        rates = [rate_at(row, share) if has_rate(row) else None for share in (95.0, 50.0, 5.0)]
        table.append([f"{row.date:%Y-%m-%d %H:%M:%S}", shown_tag(row), *map(cell, rates), str(row.bad_samples),
                      str(row.lost), str(row.lost_in_bad)])
    return ["Trend: Mbit/s of the good batches, test by test",
            Sheet([("date", -21), ("tag", -width), ("low 5 %", 9), ("median", 9), ("top 5 %", 9), ("bad", 7),
                   ("lost", 9), ("in bad", 9)], table)]


def shares_of(values):
    largest = max(values, default=0)
    return [value / largest if largest > 0 else 0 for value in values]


def histogram_text(rows, args):
    blocks = ["Histogram: good batches by their rate"]
    for label, counts in histograms(rows, args.by).items():
        blocks += ["", f"{label}: {sum(counts)} good batches"]
        used = used_bins({label: counts})
        if used:
            edges, joined = joined_bins(counts, *used, bin_width(*used, TEXT_GROUPS))
            table = [[f"{low:7} to {high:5} Mbit/s", str(count)] for low, high, count in zip(edges, edges[1:], joined)]
            blocks.append(Sheet([("rate", -23), ("batches", 9)], table, bars=shares_of(joined), heading=False))
    return blocks


def spread_row(name, ordered, decimals):
    points = [percentile(ordered, percent) for percent in (5, 50, 95, 99)] if ordered else [None] * 4
    ends = (ordered[0], ordered[-1]) if ordered else (None, None)
    return [name, *(cell(value, decimals) for value in (ends[0], *points, ends[1]))]


def spread_sheet(rows):
    return Sheet([("", -24), *((name, 10) for name in ("min", "p5", "p50", "p95", "p99", "max"))], rows, "  ")


def in_groups(items):
    size = max(1, math.ceil(len(items) / TEXT_GROUPS))
    return [items[start:start + size] for start in range(0, len(items), size)]


def batch_groups(run):
    top = max(good_rates(run), default=0)
    table, bars = [], []
    for group in in_groups(run.items):
        part = Run(run.path, group)
        rates, buffers = good_rates(part), good_buffers(part)
        low, middle, high = (rates[0], percentile(rates, 50), rates[-1]) if rates else (None, None, None)
        table.append([f"{group[0].number:6} to {group[-1].number:5}", cell(low), cell(middle), cell(high),
                      cell(max(buffers, default=None)), str(sum(batch.bad for batch in group))])
        bars.append(middle / top if rates and top > 0 else 0)
    return Sheet([("batches", 15), ("low", 9), ("median", 9), ("high Mbit/s", 13), ("buffer ms", 11), ("bad", 6)],
                 table, "  ", bars)


def batches_text(runs, _args):
    blocks = ["Rate and buffer consumption, batch by batch"]
    for label, run in zip(run_labels(runs), runs):
        bad = [batch for batch in run.items if batch.bad]
        lost = sum(batch.size - batch.received for batch in run.items if not batch.bad)
        lost_in_bad = sum(batch.size - batch.received for batch in bad)
        blocks += ["", f"{label}: {len(run.items)} batches, {len(bad)} bad; {lost} packets lost in good ones, "
                   f"{lost_in_bad} in bad ones"]
        blocks.append(spread_sheet([spread_row("rate, Mbit/s", good_rates(run), 1),
                                    spread_row("buffer, ms", good_buffers(run), 1)]))
        blocks.append(batch_groups(run))
    return blocks


def request_groups(run):
    table = []
    for group in in_groups(run.items):
        part = Run(run.path, group)
        times = round_trips(part)
        figures = (times[0], percentile(times, 50), times[-1]) if times else (None, None, None)
        table.append([f"{group[0].sequence:6} to {group[-1].sequence:5}", *(cell(value, 3) for value in figures),
                      str(len(timeouts(part)))])
    return Sheet([("requests", 15), ("low", 10), ("median", 10), ("high ms", 10), ("time-outs", 11)], table, "  ")


def host_sheet(run):
    """The hosts of a sweep or the routers of a trace, those included that did not answer."""
    rows = host_rows(run)
    table = []
    for row in rows[:MOST_HOST_ROWS]:
        requests = str(row.first) if row.first == row.last else f"{row.first} to {row.last}"
        what = row.answer if row.answer not in (NO_ANSWER, NO_LINE) or row.first == row.last else \
            f"{row.answer} to {row.last - row.first + 1} requests"
        table.append([requests, row.host or "-", cell(percentile(row.times, 50) if row.times else None, 3), what])
    if len(rows) > MOST_HOST_ROWS:
        table.append(f"  ... and {len(rows) - MOST_HOST_ROWS} more")
    width = max(15, *(len(row[1]) for row in table if not isinstance(row, str)))
    return Sheet([("requests", 15), ("  host", -(width + 4)), ("median ms", 9), ("  answer", -1)],
                 [row if isinstance(row, str) else [row[0], "  " + row[1], row[2], "  " + row[3]] for row in table],
                 "  ")


def distribution(ordered):
    edges = rtt_edges(ordered, TEXT_GROUPS)
    counts = bin_counts(ordered, edges)
    table = [[f"{low:9.3f} to {high:9.3f} ms", str(count)] for low, high, count in zip(edges, edges[1:], counts)]
    return Sheet([("round trip", 25), ("answers", 9)], table, "  ", shares_of(counts), heading=False)


def echo_text(runs, _args):
    blocks = ["Round-trip time"]
    for label, run in zip(run_labels(runs), runs):
        ordered = round_trips(run)
        blocks += ["", f"{label}: {echo_counts(run)}", spread_sheet([spread_row("round trip, ms", ordered, 3)]),
                   request_groups(run)]
        if ordered:
            blocks += ["  distribution", distribution(ordered)]
        if names_hosts(run):
            blocks += ["  hosts", host_sheet(run)]
    return blocks
