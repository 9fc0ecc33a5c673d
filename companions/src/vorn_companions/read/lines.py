# SPDX-License-Identifier: MIT
"""One printed line to its record. A line is understood whole or not at all."""

import math
import re
from collections.abc import Callable
from typing import Any

from vorn_companions.read.records import (REPLY, Batch, Completed, DataRate, Destination, Echo, Extremes, Hop, Message,
                                          MonitorLocked, PacketRates, Record, Request, RunningRate, StreamPacket,
                                          Timeout, Totals)

NUMBER = r"-?(?:\d+\.\d+|inf|nan)"
ADDRESS = r"\d+\.\d+\.\d+\.\d+"
COLUMNS = rf"(?:(?:\s+{NUMBER}){{7}})?\s+(?P<buffer>{NUMBER}) msec(?:(?:\s+{NUMBER}){{7}})?"
GRAPH = r"\s*(?P<number>\d+):(?P<mark>[* ])[|X][X| \d]{34}[|X]"


def whole(pattern: str) -> re.Pattern[str]:
    return re.compile(rf"(?:{pattern})\s*$", re.ASCII)


ANSWER = whole(rf"\s*(-?\d+): Received\s+(\S.*?)\s+in +({NUMBER})s from ({ADDRESS})")
TIMEOUT = whole(rf"\s*(-?\d+): TIMEOUT in +{NUMBER}s, expected rsp from ({ADDRESS})")
STREAM_PACKET = whole(rf"\s*(-?\d+): *(-?\d+): Received\s+\S.*?\s+in +({NUMBER})s from ({ADDRESS})")
SHORT_BATCH = whole(
    rf"\s*(?P<number>\d+):(?P<mark>[* ]) Pkts: +(?P<received>-?\d+)/(?P<size>\d+) +(?P<rate>{NUMBER}) mbps"
    rf"{COLUMNS}\s+Lost: -?\d+ +Bad Samples: -?\d+")
VERBOSE_BATCH = whole(
    rf"{GRAPH} +(?P<lost>-?\d+)/ *(?P<size>\d+) +{NUMBER}% lost, +-?\d+ late +{NUMBER} rx/s, +(?P<rate>{NUMBER}) Mbps"
    rf" D= *{NUMBER}, m/M/a +{NUMBER}/ *{NUMBER}/ *{NUMBER},{COLUMNS}")
SILENT_BATCH = whole(
    rf"(?:{GRAPH})?\s*(?P<own_number>\d+):\*\*\* Rx (?P<received>-?\d+), Lost (?P<lost>-?\d+)")
RUNNING_RATE = whole(
    rf"Running Bitrate: +({NUMBER}) Megabits/s, +({NUMBER}) fps"
    rf"(?:, +(-?\d+) tx, +(-?\d+) rx, +(-?\d+) missing, +(-?\d+) late, +(-?\d+) lost, +{NUMBER}% lost)?")
TOTALS = whole(rf"In +({NUMBER})s, (-?\d+) tx pkts, (-?\d+) rx pkts, (-?\d+) missing, -?\d+ invalid")
PACKET_RATES = whole(rf" *({NUMBER}) tx/s, +({NUMBER}) rx/s")
DATA_RATE = whole(rf"IP data rate +{NUMBER}KB/s, +({NUMBER})Kb/s")
EXTREMES = whole(rf"Min = +({NUMBER}), Max = +({NUMBER}), Avg = +({NUMBER}),")
COMPLETED = whole(rf"Test complete! Total test time: +({NUMBER})s")
DESTINATION = whole(rf"Destination IP = ({ADDRESS})")
RANGE = whole(rf"Start IP= ({ADDRESS})  End IP= ({ADDRESS})")
MONITOR_LOCKED = whole(rf"Monitor locked on ({ADDRESS}), id -?\d+")

# Lines without a figure. The usage text is indented or names its options first.
BANNER = whole(
    r"|Vorn version .+|Built .+ at \d+:\d+:\d+|Engaging options: .*|Cleanup exit"
    r"|Joining multicast group on interface .+|Sending reporting to .+|(?:\s*\d+\.\d)+|Select for \d+\.\d+"
    r"|\d+\.\d+: Tx one, .+"
    r"|So far: .+ lost|vorn, version .+|.+ \[options\] \[start_host\] end_host|Options:| -\S.*| <.+| NOTE: .*"
    r"|  {6,}\S.*"
    r"| --\S.*|Presets?:.*")
TROUBLE = whole(
    r"(?:Error|ERROR|Err|err)[-:] ?.+|Note: .+|Flushed \d+ frames|-a# capped at \d+|-l# capped at \d+"
    r"|-[cu] and -[ip] incompatible")

# Begins like the line of a request or of a batch. What does so and is not understood is damaged.
DATA_LIKE = re.compile(r"\s*-?\d+:(?:[* ]|$)", re.ASCII)


LARGEST = 2 ** 63 / 10 ** 6  # in thousandths and millionths it still fits where records are kept


def integer(text: str) -> int:
    value = int(text)
    if not -LARGEST < value < LARGEST:
        raise ValueError(text)
    return value


def finite(text: str) -> float | None:
    value = float(text)
    if math.isfinite(value) and not -LARGEST < value < LARGEST:
        raise ValueError(text)
    return value if math.isfinite(value) else None


def usec(seconds: str) -> int | None:
    value = finite(seconds)
    return None if value is None else round(value * 1e6)


def request_of(text: str) -> Request | None:
    match = ANSWER.match(text)
    if match:
        sequence, answer, seconds, host = match.groups()
        kind = Hop if answer == "TTL Exceeded" else Echo
        return kind(integer(sequence), usec(seconds), host, REPLY if answer == REPLY else answer)
    match = TIMEOUT.match(text)
    return Timeout(integer(match[1]), None, match[2], "") if match else None


def batch_of(text: str) -> Batch | None:
    match = SHORT_BATCH.match(text)
    if match:
        return Batch(integer(match["number"]), match["mark"] == "*", integer(match["received"]), integer(match["size"]),
                     finite(match["rate"]), finite(match["buffer"]))
    match = VERBOSE_BATCH.match(text)
    if match:
        size = integer(match["size"])
        return Batch(integer(match["number"]), match["mark"] == "*", size - integer(match["lost"]), size,
                     finite(match["rate"]), finite(match["buffer"]), "verbose")
    match = SILENT_BATCH.match(text)
    if match:
        received = integer(match["received"])
        size = received + integer(match["lost"])
        # A batch of a single packet is good when that packet came, although it has no rate.
        return Batch(integer(match["own_number"]), size != 1 or received < 1, received, size, None, None, "silent")
    return None


def counts(texts: tuple[str | None, ...]) -> list[int | None]:
    return [None if text is None else integer(text) for text in texts]


# What to make of the groups of each further kind of line.
FURTHER_LINES: tuple[tuple[re.Pattern[str], Callable[..., Any]], ...] = (
    (STREAM_PACKET,
     lambda batch, sequence, gap, host: StreamPacket(integer(batch), integer(sequence), usec(gap), host)),
    (RUNNING_RATE, lambda rate, fps, *rest: RunningRate(finite(rate), finite(fps), *counts(rest))),
    (TOTALS, lambda seconds, *rest: Totals(usec(seconds), *map(integer, rest))),
    (PACKET_RATES, lambda sent, received: PacketRates(finite(sent), finite(received))),
    (DATA_RATE, lambda kilobits: DataRate(finite(kilobits))),
    (EXTREMES, lambda *times: Extremes(*map(usec, times))),
    (COMPLETED, lambda seconds: Completed(usec(seconds))),
    (DESTINATION, lambda host: Destination(host, None)),
    (RANGE, Destination),
    (MONITOR_LOCKED, MonitorLocked),
)


def record_of(text: str) -> Record | None:
    """The record of one line (without its newline); None when it is not a whole line of the program."""
    try:
        return figures_of(text) or message_of(text)
    except ValueError:  # digits without end
        return None


def figures_of(text: str) -> Record | None:
    if record := request_of(text) or batch_of(text):
        return record
    for pattern, make in FURTHER_LINES:
        if match := pattern.match(text):
            made: Record = make(*match.groups())
            return made
    return None


def message_of(text: str) -> Message | None:
    if TROUBLE.match(text):
        return Message(text.strip(), True)
    return Message(text.strip(), False) if BANNER.match(text) and not is_damaged(text) else None


def is_damaged(text: str) -> bool:
    """True for a line that `record_of` does not know although it begins like a request or a batch."""
    return bool(DATA_LIKE.match(text))
