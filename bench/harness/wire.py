"""What was on the wire: frames captured on a device with the kernel's stamps, and the figures that follow from them
alone."""

import dataclasses
import os
import re
import signal
import socket
import struct
import tempfile
import time

import dpkt

from harness.lab import DEVICE, FAR_ADDRESS, FAR_CPU, NEAR_ADDRESS
from harness.measuring import Helper, NoFigures

ICMP_REPLY, ICMP_REQUEST = 0, 8
UDP_REQUEST, UDP_REPLY, UDP_DATA = 1, 2, 3
MESSAGE = struct.Struct(">IIIII")  # type, process, batch, sequence, length
KEPT_BYTES, RING_KILOBYTES = 96, 98304


@dataclasses.dataclass(slots=True, frozen=True)
class Packet:
    """A test packet. ICMP has no batch; of other programs' UDP packets only the stamp and the port mean anything."""

    nsec: int
    sent: bool  # by the end where the capture was taken
    udp: bool
    port: int  # destination, UDP only
    kind: int
    batch: int
    sequence: int


class Capture:
    """What passes the near or the far end's device for the length of a `with`. tcpdump stands still meanwhile: the
    kernel fills its ring within the calls that carry the frames, and nobody's processor time is taken."""

    def __init__(self, lab, end):
        self.directory = tempfile.TemporaryDirectory()
        self.file = os.path.join(self.directory.name, "capture")
        self.address = socket.inet_aton(NEAR_ADDRESS if end == "near" else FAR_ADDRESS)
        command = ["tcpdump", "-i", DEVICE, "-Z", "root", "--immediate-mode", "--nano", "-s", str(KEPT_BYTES), "-B",
                   str(RING_KILOBYTES), "-U", "-w", self.file]
        self.helper = Helper(lab.near if end == "near" else lab.far, command, cpu=FAR_CPU)

    def __enter__(self):
        self.helper.__enter__()
        self.helper.process.send_signal(signal.SIGSTOP)
        return self

    def __exit__(self, *_):
        self.helper.process.send_signal(signal.SIGCONT)
        self.helper.end()
        self.directory.cleanup()

    def packets(self):
        """In the order of capture. Nothing can be judged when one was missed."""
        self.helper.process.send_signal(signal.SIGCONT)
        written = -1
        while written != (written := os.path.getsize(self.file)):  # the ring is not empty yet
            time.sleep(0.2)
        report = self.helper.end()
        captured, received, dropped = (int(number) for number in re.findall(r"^(\d+) packets", report, re.MULTILINE))
        if dropped or captured != received:
            raise NoFigures(report)
        with open(self.file, "rb") as file:
            return [packet for stamp, frame in dpkt.pcap.Reader(file)
                    for packet in packets_of(int(stamp * 1000000000), dpkt.ethernet.Ethernet(frame).data, self.address)]


def packets_of(nsec, ip, own_address):
    """The test packets of one frame: none, one, or as many as a sender laid side by side to be split by its device."""
    if not isinstance(ip, dpkt.ip.IP):
        return []
    sent, carried = ip.src == own_address, ip.data
    if isinstance(carried, dpkt.icmp.ICMP) and isinstance(carried.data, dpkt.icmp.ICMP.Echo):
        return [Packet(nsec, sent, False, 0, carried.type, 0, carried.data.seq)]
    if not isinstance(carried, dpkt.udp.UDP) or len(carried.data) < MESSAGE.size:
        return []
    kind, _, batch, sequence, length = MESSAGE.unpack_from(carried.data)
    whole = ip.len - ip.hl * 4 - 8
    count = whole // length if kind in (UDP_REQUEST, UDP_DATA) and 0 < length < whole else 1
    return [Packet(nsec, sent, True, carried.dport, kind, batch, sequence + i) for i in range(count)]


# ---- a batch

def batches_in(packets):
    """{batch: {sequence: nsec of its first arrival}} of the streams in `packets`."""
    batches = {}
    for packet in packets:
        if packet.udp and packet.kind == UDP_DATA:
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
    return packet.sent and packet.kind == (UDP_REQUEST if packet.udp else ICMP_REQUEST)


def is_reply(packet):
    return not packet.sent and packet.kind == (UDP_REPLY if packet.udp else ICMP_REPLY)


def round_trips_usec(packets):
    """{sequence: usec from request to reply}, for runs of at most 65536 requests."""
    sent = {packet.sequence: packet.nsec for packet in packets if is_request(packet)}
    answered = {}
    for packet in packets:
        if is_reply(packet) and packet.sequence in sent:
            answered.setdefault(packet.sequence, (packet.nsec - sent[packet.sequence]) / 1000)
    return answered
