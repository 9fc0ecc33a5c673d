# SPDX-License-Identifier: MIT
"""The figures of a check as a file for the textfile collector of Prometheus.

Gauges tell of the last check. Counters and the histogram of round trips go on from what the file held before, so that
they can be added up over hosts and over time.
"""

import contextlib
import dataclasses
import os
import tempfile
import time
from collections.abc import Iterator, Sequence

from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily, HistogramMetricFamily, Metric
from prometheus_client.parser import text_string_to_metric_families
from prometheus_client.registry import Collector

from vorn_companions.commands.check_run import Figures

PREFIX = "vorn_check_"
READABLE = 0o644  # by the collector, whoever it runs as
MILLI, MEGA, PERCENT = 1e-3, 1e6, 0.01

# Base units, as Prometheus wants them: field of Figures, factor, name, help.
GAUGES = (
    ("sent", 1, "sent", "Requests, or packets of the stream, of the last check"),
    ("answered", 1, "received", "Answers, or packets of the stream that arrived, of the last check"),
    ("loss", PERCENT, "loss_ratio", "Share without an answer, or lost from the stream"),
    ("rtt_median", MILLI, "rtt_median_seconds", "Median round trip"),
    ("rtt_p95", MILLI, "rtt_p95_seconds", "Round trip that 95 % of the answers did not exceed"),
    ("rtt_p99", MILLI, "rtt_p99_seconds", "Round trip that 99 % of the answers did not exceed"),
    ("rtt_max", MILLI, "rtt_max_seconds", "Longest round trip"),
    ("jitter", MILLI, "jitter_seconds", "Mean difference of a round trip from the one before"),
    ("rate_median", MEGA, "rate_median_bits_per_second", "Rate that half of the good batches reached"),
    ("rate_p99", MEGA, "rate_p99_bits_per_second", "Rate that 99 % of the good batches reached"),
    ("batches", 1, "batches", "Batches of the stream"),
    ("bad", 1, "bad_batches", "Batches without their first or last packet"),
)
COUNTERS = (
    ("sent", "packets_sent", "Requests, or packets of streams, of all checks"),
    ("answered", "packets_received", "Answers, or packets of streams that arrived, of all checks"),
)
RTT, RTT_HELP = "rtt_seconds", "Round trips of all checks, of echo replies in time"
BUCKETS = tuple(step * 10.0 ** power for power in range(-5, 1) for step in (1, 2.5, 5))  # seconds: 10 us to 5 s


@dataclasses.dataclass(frozen=True)
class Labels:
    target: str
    mode: str  # echo, stream
    label: str


class Collected(Collector):
    """What the library writes out."""

    def __init__(self, families: Sequence[Metric]) -> None:
        self.families = families

    def collect(self) -> Iterator[Metric]:
        yield from self.families


def values_before(path: str, labels: dict[str, str]) -> dict[tuple[str, str], float]:
    """The samples with these labels that the file holds, by name and bucket; none when it cannot be read."""
    found: dict[tuple[str, str], float] = {}
    with contextlib.suppress(OSError, ValueError, KeyError), open(path, encoding="utf-8") as stream:
        for family in text_string_to_metric_families(stream.read()):  # type: ignore[no-untyped-call]
            for sample in family.samples:
                if labels.items() <= sample.labels.items():
                    found[sample.name, sample.labels.get("le", "")] = sample.value
    return found


def families(labels: Labels, figures: Figures, times_ms: Sequence[float], status: int,
             before: dict[tuple[str, str], float]) -> list[Metric]:
    names, values = list(dataclasses.asdict(labels)), list(dataclasses.asdict(labels).values())
    found: list[Metric] = []

    def gauge(name: str, text: str, value: float) -> None:
        family = GaugeMetricFamily(PREFIX + name, text, labels=names)
        family.add_metric(values, value)
        found.append(family)

    gauge("status", "0 ok, 1 warning, 2 critical, 3 unknown", status)
    gauge("time_seconds", "When the check was made, since 1970", time.time())
    for field, factor, name, text in GAUGES:
        value = getattr(figures, field)
        if value is not None:
            gauge(name, text, round(value * factor, 9))
    for field, name, text in COUNTERS:
        counter = CounterMetricFamily(PREFIX + name, text, labels=names)
        counter.add_metric(values, before.get((f"{PREFIX}{name}_total", ""), 0) + (getattr(figures, field) or 0))
        found.append(counter)
    if labels.mode == "echo":
        found.append(histogram(names, values, times_ms, before))
    return found


def histogram(names: list[str], values: list[str], times_ms: Sequence[float],
              before: dict[tuple[str, str], float]) -> Metric:
    def counted(limit: float, text: str) -> float:
        return before.get((f"{PREFIX}{RTT}_bucket", text), 0) + sum(time / 1000 <= limit for time in times_ms)

    limits = [*((limit, f"{limit:.6g}") for limit in BUCKETS), (float("inf"), "+Inf")]
    family = HistogramMetricFamily(PREFIX + RTT, RTT_HELP, labels=names)
    total = before.get((f"{PREFIX}{RTT}_sum", ""), 0) + sum(times_ms) / 1000
    family.add_metric(values, [(text, counted(limit, text)) for limit, text in limits], round(total, 9))
    return family


def write(path: str, labels: Labels, figures: Figures, times_ms: Sequence[float], status: int) -> None:
    """Replaces the file at once; a figure that there is none of is left out. Raises OSError or ValueError, and then
    leaves nothing behind."""
    registry = CollectorRegistry(auto_describe=False)
    registry.register(Collected(families(labels, figures, times_ms, status,
                                         values_before(path, dataclasses.asdict(labels)))))
    text = generate_latest(registry)
    descriptor, new = tempfile.mkstemp(prefix=os.path.basename(path) + ".", dir=os.path.dirname(path) or ".")
    try:
        with open(descriptor, "wb") as stream:
            os.fchmod(descriptor, READABLE)
            stream.write(text)
        os.replace(new, path)
    except BaseException:
        os.unlink(new)
        raise
