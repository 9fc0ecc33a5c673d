# SPDX-License-Identifier: MIT
"""The figures of files and saved output: what both the picture and the text show."""

import dataclasses
import ipaddress
import math
import os
import statistics

from vorn_companions.read.records import REPLY, Hop
from vorn_companions.read.tables import NO_TAG, SHARES


def percentile(ordered, percent):
    """The smallest value that at least `percent` of the values do not exceed."""
    return ordered[max(0, math.ceil(len(ordered) * percent / 100 - 1e-9) - 1)]


def shown_tag(row):
    return "no tag" if row.tag == NO_TAG else row.tag


def row_labels(rows):
    """For each row the shortest name that no other row has: the tag, the tag and the date, or the tag and the line."""
    dates = [f"{row.date:%Y-%m-%d %H:%M:%S}" for row in rows]
    tags = ["" if row.tag == NO_TAG else row.tag for row in rows]
    dated = [f"{tag}, {date}" if tag else date for tag, date in zip(tags, dates)]
    places = [f"{shown_tag(row)}, {row.path}:{row.line}" for row in rows]
    return [tag if tag and tags.count(tag) == 1 else date if dated.count(date) == 1 else place
            for tag, date, place in zip(tags, dated, places)]


def rows_by_tag(rows):
    groups = {}
    for row in rows:
        groups.setdefault(shown_tag(row), []).append(row)
    return groups


def rate_at(row, share):
    """Mbit/s that `share` percent of the row's good batches reached or beat; None when the row is too short."""
    index = SHARES.index(share)
    return row.values[index] if index < len(row.values) else None


def has_rate(row):
    """False when every column is 0.0: no batch was good, or none reached 0.05 Mbit/s."""
    return any(row.values)


def rate_line(rows):
    """[(share, lowest, median, highest)] in Mbit/s over the rows, one entry a share that a row holds."""
    line = []
    for share in SHARES:
        rates = [rate for rate in (rate_at(row, share) for row in rows if has_rate(row)) if rate is not None]
        if rates:
            line.append((share, min(rates), statistics.median(rates), max(rates)))
    return line


def rate_lines(rows, grouping):
    """{label: rate_line}: a line a test up to ten tests, then a line a tag, unless `grouping` says which."""
    if grouping == "tag" or (grouping is None and len(rows) > 10):
        return {tag if len(group) == 1 else f"{tag} ({len(group)} tests)": rate_line(group)
                for tag, group in rows_by_tag(rows).items()}
    return {label: rate_line([row]) for label, row in zip(row_labels(rows), rows)}


def histograms(rows, grouping):
    """{label: counts}; counts[i] is the number of batches from i - 1 up to i Mbit/s. Tests of one tag are added."""
    if grouping != "tag":
        return {label: row.values for label, row in zip(row_labels(rows), rows)}
    sums = {}
    for tag, group in rows_by_tag(rows).items():
        sums[tag] = [0] * max(len(row.values) for row in group)
        for row in group:
            for index, count in enumerate(row.values):
                sums[tag][index] += count
    return sums


def used_bins(counts_of):
    """(first, last) index of a bin that any of the histograms fills; None when all are empty."""
    used = [index for counts in counts_of.values() for index, count in enumerate(counts) if count]
    return (min(used), max(used)) if used else None


def bin_width(first, last, most):
    """Mbit/s: the round width with which the bins first to last become about `most` at the outside."""
    return next(step * 10 ** power for power in range(10) for step in (1, 2, 5)
                if last - first < most * step * 10 ** power)


def joined_bins(counts, first, last, width):
    """(edges, counts) in Mbit/s of the bins first to last, `width` of them joined to one, from a multiple of it."""
    start = first - 1 - (first - 1) % width
    lows = range(start, last, width)
    return [*lows, lows[-1] + width], [sum(counts[max(0, low + 1):low + 1 + width]) for low in lows]


def good_rates(run):
    return sorted(batch.rate for batch in run.items if not batch.bad and batch.rate is not None)


def good_buffers(run):
    return sorted(batch.buffer for batch in run.items if not batch.bad and batch.buffer is not None)


def round_trips(run):
    """Round-trip times in ms, the shortest first."""
    if run.ordered is None:
        run.ordered = sorted(request.rtt for request in run.items if request.rtt_usec is not None)
    return run.ordered


def timeouts(run):
    return [request.sequence for request in run.items if not request.answer]


def run_labels(runs):
    """The labels of the runs, with the whole path where two files share a name."""
    labels = [run.label for run in runs]
    return [run.path + run.label[len(os.path.basename(run.path)):] if labels.count(run.label) > 1 else run.label
            for run in runs]


def echo_counts(run):
    answered, late = len(round_trips(run)), len(timeouts(run))
    hidden = run.sent - len(run.items)
    text = f"{run.sent} sent, {answered} answers, {late} time-outs"
    return text + (f", {hidden} without a line" if hidden > 0 else "")


def is_wide(ordered):
    """True when the times span so much that a linear scale would press most of them flat."""
    return bool(ordered) and ordered[0] > 0 and ordered[-1] > 20 * ordered[0]


def rtt_edges(ordered, bins):
    """Bin edges in ms over the round-trip times: even, or growing when the scale is logarithmic."""
    low, high = ordered[0], ordered[-1]
    if is_wide(ordered):
        return [low * (high / low) ** (index / bins) for index in range(bins)] + [high]
    if high - low < 1e-9:
        return [low - 0.05, high + 0.05]
    return [low + (high - low) * index / bins for index in range(bins)] + [high]


def bin_counts(ordered, edges):
    counts = [0] * (len(edges) - 1)
    index = 0
    for value in ordered:
        while index < len(counts) - 1 and value >= edges[index + 1]:
            index += 1
        counts[index] += 1
    return counts


def with_gaps(requests):
    """(sequences, ms) of a line that breaks at time-outs and at requests without a line of their own."""
    sequences, times = [], []
    for request in requests:
        if sequences and request.sequence != sequences[-1] + 1:
            sequences.append(sequences[-1] + 1)
            times.append(math.nan)
        sequences.append(request.sequence)
        times.append(math.nan if request.rtt_usec is None else request.rtt)
    return sequences, times



# --- what lies far outside ---

def scale_end(values, percent=98):
    """Where a scale from 0 may end so that a stray value does not flatten the rest; None when it may show all."""
    ordered = sorted(values)
    if len(ordered) < 3:
        return None
    usual = percentile(ordered, percent) if len(ordered) >= 50 else ordered[-2]
    return 1.25 * usual if usual > 0 and ordered[-1] > 3 * usual else None


def outside_text(values, end, unit):
    """What a scale that ends at `end` leaves out."""
    beyond = [value for value in values if value > end]
    return f"{len(beyond)} beyond the scale, up to {max(beyond):g} {unit}"


# --- many requests ---

def bands(run, most):
    """Requests in up to `most` groups of as many numbers: [(first, last, round trips in ms in order, lost, errors)]."""
    low, high = run.items[0].sequence, run.items[-1].sequence
    width = max(1, math.ceil((high - low + 1) / most))
    groups = {}
    for request in run.items:
        groups.setdefault((request.sequence - low) // width, []).append(request)
    return [(low + index * width, low + (index + 1) * width - 1,
             sorted(request.rtt_usec / 1000 for request in group if request.rtt_usec is not None),
             sum(not request.answer for request in group),
             [request.rtt for request in group if request.answer not in ("", REPLY) and request.rtt is not None])
            for index, group in groups.items()]


# --- the hosts of a sweep, the routers of a trace ---

NO_ANSWER = "no answer"
NO_LINE = "no line"


@dataclasses.dataclass
class HostRow:
    """Requests in a row that one host answered, or that nobody did."""

    first: int  # request
    last: int
    host: str  # or "first to last"; empty when it is not known whom they went to
    answer: str  # NO_ANSWER, NO_LINE: neither an answer nor a time-out was printed
    times: list  # ms, in order


def names_hosts(run):
    """Whether the run is one of several hosts: a sweep or a trace."""
    return run.last is not None or len({request.host for request in run.items}) > 1


def requests_a_host(run):
    """How many requests each address of a sweep got; None when that cannot be told."""
    if run.last is None:
        return None
    first = int(ipaddress.ip_address(run.first))
    count = int(ipaddress.ip_address(run.last)) - first + 1
    each = max(1, run.sent // count)
    # An answer of the host itself must be where this puts it; a run that was stopped may not add up.
    fits = all(int(ipaddress.ip_address(request.host)) == first + request.sequence // each
               for request in run.items if request.answer in ("", REPLY))
    return each if fits and count > 0 else None


def host_rows(run):
    """The HostRows of a run, in the order of its requests, those without an answer or without a line included.

    In a sweep an error names whom it tells of. Which router stayed silent, nobody knows.
    """
    each = requests_a_host(run)
    base = int(ipaddress.ip_address(run.first)) if each else 0
    is_trace = any(isinstance(request, Hop) for request in run.items) and not each
    rows = []

    def add(first, last, host, answer, times):
        silent = answer in (NO_ANSWER, NO_LINE)
        if rows and rows[-1].answer == answer and (silent or rows[-1].host == host):
            rows[-1].last = last
            rows[-1].times += times
            begin, end = rows[-1].host.split(" to ")[0], host.split(" to ")[-1]
            rows[-1].host = begin if begin == end else f"{begin} to {end}"
        else:
            rows.append(HostRow(first, last, host, answer, times))

    def add_gap(first, last):
        begin, end = ((str(ipaddress.ip_address(base + number // each)) if each else "") for number in (first, last))
        add(first, last, begin if begin == end else f"{begin} to {end}", NO_LINE, [])

    expected = 0
    for request in run.items:
        if request.sequence > expected:
            add_gap(expected, request.sequence - 1)
        host = request.host
        if each and request.answer not in ("", REPLY):
            host = f"{ipaddress.ip_address(base + request.sequence // each)} (says {host})"
        elif is_trace and not request.answer:
            host = ""
        add(request.sequence, request.sequence, host, request.answer or NO_ANSWER,
            [] if request.rtt is None else [request.rtt])
        expected = request.sequence + 1
    if run.sent > expected:
        add_gap(expected, run.sent - 1)
    for row in rows:
        row.times.sort()
    return rows
