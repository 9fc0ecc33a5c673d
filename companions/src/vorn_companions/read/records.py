# SPDX-License-Identifier: MIT
"""A record for each kind of line that the program prints and for each kind of row that it writes.

Times are whole microseconds where a name ends in `_usec`; rates are Mbit/s, as printed.
"""

import dataclasses
import datetime

REPLY = "Echo Reply"


# --- echo mode: a ping, a sweep, a trace ---

@dataclasses.dataclass(slots=True)
class Request:
    """What became of one request; never made itself, but as one of the three below."""

    sequence: int
    rtt_usec: int | None  # None: no answer, or a time that is no number
    host: str  # who answered; of a time-out, who should have
    answer: str  # the kind of the answer; empty when there was none

    @property
    def rtt(self) -> float | None:
        """Milliseconds, or None."""
        return None if self.rtt_usec is None else self.rtt_usec / 1000


class Echo(Request):
    """An answer: of the host itself, or an ICMP error about the request."""

    __slots__ = ()


class Hop(Request):
    """A router on the way (TTL exceeded): the lines of a trace."""

    __slots__ = ()


class Timeout(Request):
    """No answer in time."""

    __slots__ = ()


@dataclasses.dataclass(slots=True)
class RunningRate:
    """The running bitrate (-A). The counts are those since the start; None before the first packet."""

    rate: float | None
    frames_per_second: float | None
    sent: int | None = None
    received: int | None = None
    missing: int | None = None
    late: int | None = None
    lost: int | None = None


@dataclasses.dataclass(slots=True)
class Totals:
    """First line of the summary of an echo-mode run."""

    duration_usec: int | None
    sent: int
    received: int
    missing: int


@dataclasses.dataclass(slots=True)
class PacketRates:
    """Second line of that summary: packets a second."""

    sent: float | None
    received: float | None


@dataclasses.dataclass(slots=True)
class DataRate:
    """Third line of that summary: payload of both ways, kbit/s."""

    kilobits: float | None


@dataclasses.dataclass(slots=True)
class Extremes:
    """Last line of that summary: round-trip times."""

    min_usec: int | None
    max_usec: int | None
    mean_usec: int | None


# --- command mode: batches ---

@dataclasses.dataclass(slots=True)
class Batch:
    """A batch; `style` tells its line: short, verbose (-v), or silent (one packet or none came)."""

    number: int
    bad: bool
    received: int
    size: int
    rate: float | None  # None when one packet or none arrived
    buffer: float | None  # ms; None likewise
    style: str = "short"


@dataclasses.dataclass(slots=True)
class StreamPacket:
    """A packet of a batch (-c without -s), or of the stream that an ICMP monitor measures."""

    batch: int | None
    sequence: int
    gap_usec: int | None  # since the packet before
    host: str


@dataclasses.dataclass(slots=True)
class Completed:
    """The last line of a command-mode run."""

    duration_usec: int | None


# --- both ---

@dataclasses.dataclass(slots=True)
class Destination:
    """Whom a run measures: one host, or every host from `first` to `last`."""

    first: str
    last: str | None


@dataclasses.dataclass(slots=True)
class MonitorLocked:
    """An ICMP monitor found its sender: the times on its further lines are gaps, not round trips."""

    host: str


@dataclasses.dataclass(slots=True)
class Message:
    """A line without a figure. `trouble`: an error, a warning or a note, in contrast to banner and labels."""

    text: str
    trouble: bool


Record = (Request | RunningRate | Totals | PacketRates | DataRate | Extremes | Batch | StreamPacket | Completed
          | Destination | MonitorLocked | Message)


# --- files ---

@dataclasses.dataclass
class TestRow:
    """One test: a row of a results file (values: Mbit/s) or of a histogram file (values: counts)."""

    path: str
    line: int
    name: str
    protocol: str
    bad_samples: int
    lost: int  # packets, in good batches
    lost_in_bad: int  # packets, in bad samples
    batches: int
    batch_size: int
    ip_length: int  # bytes
    delay_usec: int
    test_time: float  # seconds
    date: datetime.datetime
    tag: str
    values: list[float]


@dataclasses.dataclass
class StreamRun:
    """One command-mode run of the program in saved output."""

    path: str
    batches: list[Batch]
    packets: list[StreamPacket]
    label: str = ""


@dataclasses.dataclass
class EchoRun:
    """One echo-mode run of the program in saved output."""

    path: str
    requests: list[Request]
    sent: int = 0
    label: str = ""
    first: str | None = None  # the destination, or the first of a range
    last: str | None = None  # the last of a range


@dataclasses.dataclass
class Sources:
    """What was given to a command, sorted by its kind."""

    results: list[TestRow] = dataclasses.field(default_factory=list)
    histograms: list[TestRow] = dataclasses.field(default_factory=list)
    streams: list[StreamRun] = dataclasses.field(default_factory=list)
    echoes: list[EchoRun] = dataclasses.field(default_factory=list)
    stores: list[str] = dataclasses.field(default_factory=list)  # paths of files of records
    notes: list[str] = dataclasses.field(default_factory=list)  # "place: what" of each line that was not used
