"""What was on the wire: frames captured on a device with the kernel's stamps, and the figures that follow from them
alone."""

import dataclasses
import pathlib
import struct
import tempfile

from harness import programs
from harness.lab import LINK
from harness.measuring import Helper

ETHERNET_BYTES, IP_BYTES, UDP_BYTES = 14, 20, 8
ICMP_PROTOCOL, UDP_PROTOCOL = 1, 17
RECORD = struct.Struct("=qII64s")  # capture_record of capture.cpp
ECHO_FIELDS = struct.Struct(">BxxxHH")  # type, identifier, sequence
MESSAGE_FIELDS = struct.Struct(">IIIII")  # type, process, batch, sequence, length
ICMP_REPLY, ICMP_REQUEST = 0, 8
UDP_REQUEST, UDP_REPLY, UDP_DATA = 1, 2, 3


@dataclasses.dataclass(slots=True, frozen=True)
class Packet:
    """A test packet. ICMP has no batch; of other programs' UDP packets only the stamp and the ports mean anything."""

    nsec: int
    sent: bool  # by the end where the capture was taken
    protocol: int
    port: int  # destination, UDP only
    kind: int
    batch: int
    sequence: int


class Capture:
    """Takes down what passes the near or the far end's device for the length of a `with`; `packets()` ends it."""

    def __init__(self, lab, end, frames):
        self.directory = tempfile.TemporaryDirectory()
        self.file = pathlib.Path(self.directory.name) / "capture"
        argv = [programs.bare("capture"), LINK, str(frames), str(self.file)]
        self.helper = Helper(lab, argv, namespace=lab.near if end == "near" else lab.far)

    def __enter__(self):
        self.helper.__enter__()
        return self

    def __exit__(self, *_):
        self.helper.end()
        self.directory.cleanup()

    def packets(self):
        """In the order of capture; None when one was missed, as nothing can be judged then."""
        report = self.helper.end().split()
        if report[2:] != ["missed", "0"]:
            return None
        return [packet for record in RECORD.iter_unpack(self.file.read_bytes()) for packet in packets_of(*record)]


def packets_of(nsec, frame_bytes, sent, data):
    """The test packets of one frame: none, one, or as many as a sender laid side by side to be split by its device."""
    ip = data[ETHERNET_BYTES:]
    if data[12:14] != b"\x08\x00" or ip[0] != 0x45:
        return []
    payload = ip[IP_BYTES:]
    if ip[9] == ICMP_PROTOCOL:
        kind, _, sequence = ECHO_FIELDS.unpack_from(payload)
        return [Packet(nsec, bool(sent), ICMP_PROTOCOL, 0, kind, 0, sequence)]
    if ip[9] != UDP_PROTOCOL:
        return []
    port = int.from_bytes(payload[2:4], "big")
    kind, _, batch, sequence, length = MESSAGE_FIELDS.unpack_from(payload, UDP_BYTES)
    carried = frame_bytes - ETHERNET_BYTES - IP_BYTES - UDP_BYTES
    count = carried // length if kind == UDP_DATA and 0 < length < carried else 1
    return [Packet(nsec, bool(sent), UDP_PROTOCOL, port, kind, batch, sequence + i) for i in range(count)]


# ---- a batch

def batches_in(packets):
    """{batch: {sequence: nsec of its first arrival}} of the streams in `packets`."""
    batches = {}
    for packet in packets:
        if packet.protocol == UDP_PROTOCOL and packet.kind == UDP_DATA:
            batches.setdefault(packet.batch, {}).setdefault(packet.sequence, packet.nsec)
    return batches


def span_nsec(arrivals):
    return arrivals[max(arrivals)] - arrivals[min(arrivals)]


def rate_mbps(arrivals, payload_bytes):
    """Payload bits of all packets but one over the time from the first to the last."""
    span = span_nsec(arrivals)
    return payload_bytes * 8 * (len(arrivals) - 1) * 1000 / span if span else 0


EVEN_FROM_USEC = 1000


def playout_msec(arrivals, delay_usec):
    """How far the arrivals stray from an even schedule, from the earliest to the latest. It counts from the first
    packet, and anew from the first one behind a gap; its spacing is the one asked for or, below a millisecond, the mean
    one."""
    first, last = min(arrivals), max(arrivals)
    spacing = delay_usec * 1000 if delay_usec >= EVEN_FROM_USEC else span_nsec(arrivals) / (last - first)
    base, deviations = first, []
    for sequence in range(first, last + 1):
        if sequence not in arrivals:
            base = sequence + 1
        elif sequence != base:
            deviations.append((sequence - base) * spacing - (arrivals[sequence] - arrivals[base]))
    return (max(deviations) - min(deviations)) / 1e6 if deviations else 0


# ---- round trips

def is_request(packet):
    return packet.sent and packet.kind == (ICMP_REQUEST if packet.protocol == ICMP_PROTOCOL else UDP_REQUEST)


def is_reply(packet):
    return not packet.sent and packet.kind == (ICMP_REPLY if packet.protocol == ICMP_PROTOCOL else UDP_REPLY)


def round_trips_usec(packets):
    """{sequence: usec from request to reply}, for runs of at most 65536 requests."""
    sent = {packet.sequence: packet.nsec for packet in packets if is_request(packet)}
    answered = {}
    for packet in packets:
        if is_reply(packet) and packet.sequence in sent:
            answered.setdefault(packet.sequence, (packet.nsec - sent[packet.sequence]) / 1000)
    return answered
