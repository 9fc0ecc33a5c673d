# SPDX-License-Identifier: MIT
"""The kinds of runs that a line is measured with, and what each brought."""

import dataclasses

from vorn_companions.line.arrivals import Arrivals
from vorn_companions.line.delay import Probe
from vorn_companions.line.pace import Pace
from vorn_companions.line.under_way import Session, UnderWay, lines_of, look, under_way, wait_for
from vorn_companions.read import lines
from vorn_companions.read.records import REPLY, Request, StreamPacket

PROBE_PERIOD_USEC = 10_000
PROBE_WINDOW = 256  # more than can be outstanding before they time out: a slow answer delays no request
PROBE_TIMEOUT_USEC = 1_000_000
FIRST_PACKET_SEC = 0.95  # a commander repeats its command after a second without a packet
SILENCE_SEC = 0.5  # the end of a batch is lost: before the commander has noticed, it is ended
MOST_OUTSTANDING = 65534
MOST_HOPS = 30
HOP_TIMEOUT_USEC = 250_000
SETTLED_SHARE = 0.5  # of a load; before, it fills the queue


@dataclasses.dataclass(slots=True)
class Loaded:
    """Probes beside a load that lasted from `from_usec` to `until_usec`."""

    probes: list[Probe]
    from_usec: int
    until_usec: int

    @property
    def met(self) -> list[Probe]:
        """Those that met the load when it had filled the queue."""
        settled_usec = self.from_usec + SETTLED_SHARE * (self.until_usec - self.from_usec)
        return [probe for probe in self.probes if settled_usec <= probe.sent_usec <= self.until_usec]


# --- streams towards this host ---

def stream_options(pace: Pace, size: int) -> list[str]:
    return ["-c", "-e1", f"-E{size}", f"-d{pace.delay_usec}", f"-l{pace.length}", "-T1000000"]


def wait_for_stream(session: Session, run: UnderWay, pace: Pace, size: int) -> None:
    wait_for_first_packet(session, run)
    gap_sec = 3 * pace.delay_usec / 1e6
    wait_for(session, run, longest_sec=size * pace.delay_usec / 1e6 + 5, silence_sec=max(SILENCE_SEC, gap_sec))


def wait_for_first_packet(session: Session, run: UnderWay) -> None:
    while not run.ended and first_packet_usec(run) is None and run.silent_sec < FIRST_PACKET_SEC:
        look(session)


def first_packet_usec(run: UnderWay) -> int | None:
    """When the first packet of a stream came, as far as we noticed."""
    for time_usec, text in lines_of(run):
        if isinstance(lines.record_of(text), StreamPacket):
            return time_usec
    return None


def arrivals_of(run: UnderWay, pace: Pace, size: int) -> Arrivals:
    arrivals, time_usec = Arrivals(pace, size), 0
    for _, text in lines_of(run):
        packet = lines.STREAM_PACKET.match(text)
        if packet:
            time_usec += round(float(packet[3]) * 1e6)
            arrivals.add(int(packet[2]), time_usec)
    return arrivals


def stream(session: Session, pace: Pace, size: int) -> Arrivals:
    """One batch of the far end to this host."""
    with under_way(session, *stream_options(pace, size)) as run:
        wait_for_stream(session, run, pace, size)
    return arrivals_of(run, pace, size)


def loaded_stream(session: Session, pace: Pace, size: int) -> Loaded:
    """Such a batch, and probes from its first packet to its last."""
    with under_way(session, *stream_options(pace, size)) as run:
        wait_for_first_packet(session, run)
        count = max(1, size * pace.delay_usec // PROBE_PERIOD_USEC)
        with under_way(session, *probe_options(count)) as probing:
            wait_for_stream(session, run, pace, size)
            wait_for(session, probing, longest_sec=2 * PROBE_TIMEOUT_USEC / 1e6)
    span_usec = arrivals_of(run, pace, size).span_usec
    first_usec = first_packet_usec(run) or run.started_usec
    return Loaded(probes_of(probing), first_usec, first_usec + span_usec)


# --- echoes ---

def probe_options(count: int) -> list[str]:
    return [f"-e{count}", f"-d{PROBE_PERIOD_USEC}", f"-a{PROBE_WINDOW}", f"-T{PROBE_TIMEOUT_USEC}"]


def probes_of(run: UnderWay) -> list[Probe]:
    """Requests leave by a schedule that a busy host does not shift, so one of them that was reported at once tells when
    all were sent."""
    stamped = [(time_usec, record) for time_usec, text in lines_of(run)
               if isinstance(record := lines.record_of(text), Request)]
    starts = [time_usec - record.rtt_usec - record.sequence * PROBE_PERIOD_USEC
              for time_usec, record in stamped if record.rtt_usec is not None]
    start = min(starts, default=run.started_usec)
    return [Probe(start + record.sequence * PROBE_PERIOD_USEC, record.rtt_usec if record.answer == REPLY else None)
            for _, record in stamped]


def pings_and_path(session: Session, seconds: float) -> tuple[list[Probe], list[Request]]:
    """Probes of an idle line; and in that time, once, what answered on the way to the host."""
    with under_way(session, *probe_options(round(seconds * 1e6) // PROBE_PERIOD_USEC)) as probing:
        with under_way(session, "-t", f"-e{MOST_HOPS}", "-d0", f"-T{HOP_TIMEOUT_USEC}") as tracing:
            while not (tracing.ended or probing.ended or arrived(tracing)):
                look(session)
        wait_for(session, probing, longest_sec=seconds + 2 * PROBE_TIMEOUT_USEC / 1e6)
    return probes_of(probing), answers_of(tracing)


def answers_of(run: UnderWay) -> list[Request]:
    """Up to the first answer of the host itself."""
    found: list[Request] = []
    for _, text in lines_of(run):
        record = lines.record_of(text)
        if isinstance(record, Request) and record.answer:
            found.append(record)
            if record.answer == REPLY:
                break
    return found


def arrived(run: UnderWay) -> bool:
    return any(record.answer == REPLY for record in answers_of(run))


def blast(session: Session, pace: Pace, seconds: float) -> Loaded:
    """Packets to the far end that nobody answers, with probes beside them."""
    count = round(seconds * 1e6 / pace.delay_usec)
    with under_way(session, "-u", "-U", "-i", f"-e{count}", f"-d{pace.delay_usec}", f"-l{pace.length}") as run:
        with under_way(session, *probe_options(round(seconds * 1e6) // PROBE_PERIOD_USEC)) as probing:
            wait_for(session, run, longest_sec=seconds + 1)
            wait_for(session, probing, longest_sec=2 * PROBE_TIMEOUT_USEC / 1e6)
    return Loaded(probes_of(probing), run.started_usec, run.ended_usec or run.started_usec)


def echoes(session: Session, pace: Pace, size: int, timeout_usec: int) -> Arrivals:
    """Full packets to the far end and back; arrivals are those of the answers, from the schedule of the requests."""
    arrivals = Arrivals(pace, size)
    with under_way(session, "-u", f"-e{size}", f"-d{pace.delay_usec}", f"-l{pace.length}", f"-a{MOST_OUTSTANDING}",
                   f"-T{timeout_usec}") as run:
        wait_for(session, run, longest_sec=size * pace.delay_usec / 1e6 + 2 * timeout_usec / 1e6 + 1)
    for _, text in lines_of(run):
        record = lines.record_of(text)
        if isinstance(record, Request) and record.rtt_usec is not None:
            arrivals.add(record.sequence, pace.due_usec(record.sequence) + record.rtt_usec)
    return arrivals
