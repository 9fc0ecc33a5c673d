# SPDX-License-Identifier: MIT
"""Rates as the program can be asked for them: a whole number of microseconds from packet to packet, and a length."""

import dataclasses
import math

FULL_LENGTH = 1500  # bytes of an IP packet that fills an Ethernet frame
HEADER_BYTES = 28  # IPv4 and UDP
MOST_PACKETS = 65536  # of one batch
FIRST_BURST_USEC = 10_000  # the credit that every test starts with: so much of it leaves at once


@dataclasses.dataclass(frozen=True, slots=True)
class Pace:
    """Packets of `length` bytes, one every `delay_usec`."""

    delay_usec: int
    length: int

    @property
    def rate(self) -> float:
        """Mbit/s of UDP payload, as the program prints rates."""
        return (self.length - HEADER_BYTES) * 8 / self.delay_usec

    @property
    def burst(self) -> int:
        """Packets that leave at once when a stream starts."""
        return max(1, FIRST_BURST_USEC // self.delay_usec)

    def packets_in(self, seconds: float) -> int:
        """Packets of a stream of about this length, as many as one batch can have at most."""
        return max(2, min(MOST_PACKETS, round((seconds * 1e6 + FIRST_BURST_USEC) / self.delay_usec)))

    def due_usec(self, sequence: int) -> int:
        """When the packet is due, from the start of the stream."""
        return max(0, sequence * self.delay_usec - FIRST_BURST_USEC)


def pace_above(rate: float) -> Pace:
    """Full packets at this rate or a little more, up to one a microsecond: a load need not be exact."""
    return Pace(max(1, math.floor((FULL_LENGTH - HEADER_BYTES) * 8 / rate)), FULL_LENGTH)


def pace_below(rate: float) -> Pace:
    """At most this rate and as near to it as can be asked for.

    Near 1 Gbit/s two neighbouring delays are 9 % apart; what is between them, shorter packets reach.
    """
    delay_usec = pace_above(rate).delay_usec
    while True:
        length = math.floor(rate * delay_usec / 8 + 1e-9) + HEADER_BYTES
        if length > HEADER_BYTES + 20:  # the least that a test message can have
            return Pace(delay_usec, min(length, FULL_LENGTH))
        delay_usec *= 2
