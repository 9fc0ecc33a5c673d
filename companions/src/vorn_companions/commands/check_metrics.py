# SPDX-License-Identifier: MIT
"""The figures of a check as a file for the textfile collector of Prometheus."""

import glob
import os
import time

# Base units, as Prometheus wants them: name, help, the value of Figures.
GAUGES = (
    ("vorn_check_sent", "Requests, or packets of the stream", lambda figures: figures.sent),
    ("vorn_check_received", "Answers, or packets of the stream that arrived", lambda figures: figures.answered),
    ("vorn_check_loss_ratio", "Share without an answer, or lost from the stream", lambda f: scaled(f.loss, 0.01)),
    ("vorn_check_rtt_median_seconds", "Median round trip", lambda f: scaled(f.rtt_median, 0.001)),
    ("vorn_check_rtt_p95_seconds", "Round trip that 95 % of the answers did not exceed",
     lambda f: scaled(f.rtt_p95, 0.001)),
    ("vorn_check_rate_median_bits_per_second", "Rate that half of the good batches reached",
     lambda f: scaled(f.rate_median, 1e6)),
    ("vorn_check_rate_p99_bits_per_second", "Rate that 99 % of the good batches reached",
     lambda f: scaled(f.rate_p99, 1e6)),
    ("vorn_check_batches", "Batches of the stream", lambda figures: figures.batches),
    ("vorn_check_bad_batches", "Batches without their first or last packet", lambda figures: figures.bad),
)


def scaled(value, factor):
    return None if value is None else round(value * factor, 9)


def write(options, target, figures, status):
    """Replaces the file at once; a figure that there is none of is left out. Raises OSError."""
    from prometheus_client import CollectorRegistry, Gauge, write_to_textfile
    registry = CollectorRegistry()
    labels = {"target": target, "mode": "stream" if options.streams else "echo", "label": options.label}

    def add(name, text, value):
        Gauge(name, text, labels, registry=registry).labels(**labels).set(value)

    add("vorn_check_status", "0 ok, 1 warning, 2 critical, 3 unknown", status)
    add("vorn_check_time_seconds", "When the check was made, since 1970", time.time())
    for name, text, value_of in GAUGES:
        value = value_of(figures)
        if value is not None:
            add(name, text, value)
    try:
        write_to_textfile(options.prometheus, registry)
    except OSError:
        for left in glob.glob(f"{glob.escape(options.prometheus)}.{os.getpid()}.*"):
            os.unlink(left)
        raise
