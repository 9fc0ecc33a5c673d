# SPDX-License-Identifier: MIT
"""What a measurement needs, found out before it: the right to ICMP, a host that answers, a monitor, its stream."""

from vorn_companions.line.pace import FULL_LENGTH, Pace
from vorn_companions.line.runs import stream_options
from vorn_companions.line.under_way import NotMeasured, Session, UnderWay, lines_of, under_way, wait_for
from vorn_companions.read import lines
from vorn_companions.read.records import Message, Request, StreamPacket

ATTEMPTS = 2  # one packet may be lost
ATTEMPT_SEC = 0.55
ECHO_SEC = 0.45
PINGS = ("-e3", "-d50000", "-a3", "-T1500000")


def records_of(run: UnderWay) -> list[object]:
    return [lines.record_of(text) for _, text in lines_of(run)]


def refusal_of(run: UnderWay) -> str:
    """What the program said when it could not start; empty when it could."""
    troubles = [record.text for record in records_of(run) if isinstance(record, Message) and record.trouble]
    return (troubles or ["no reason given"])[0] if run.process.poll() == 1 else ""


def streams_back(session: Session) -> bool:
    pace, size = Pace(1, FULL_LENGTH), 3
    for _ in range(ATTEMPTS):
        with under_way(session, *stream_options(pace, size)) as run:
            wait_for(session, run, longest_sec=ATTEMPT_SEC)
        if refusal := refusal_of(run):
            raise NotMeasured(f"vorn cannot start a test: {refusal}")
        if any(isinstance(record, StreamPacket) for record in records_of(run)):
            return True
    return False


def is_answered(session: Session, *options: str) -> bool:
    with under_way(session, *options) as run:
        wait_for(session, run, longest_sec=ECHO_SEC)
    return any(isinstance(record, Request) and record.answer for record in records_of(run))


def insist_on_icmp(pinging: UnderWay) -> None:
    if refusal := refusal_of(pinging):
        raise NotMeasured(f"no right to send ICMP, which measures the delay: {refusal}")


def look_before(session: Session) -> None:
    """Raises NotMeasured, with the reason, within two seconds when the line cannot be measured."""
    with under_way(session, *PINGS) as pinging:
        streaming = streams_back(session)
        insist_on_icmp(pinging)
        if not streaming and is_answered(session, "-u", "-e3", "-d10000", "-a3"):
            raise NotMeasured(f"a monitor answers at {session.host}, but its stream to UDP port 8003 of this host does "
                              "not arrive: a firewall?")
        if not streaming:
            raise NotMeasured(f"no monitor answers at {session.host}: vorn --server has to run there, and UDP port "
                              "8004 to be open")
        wait_for(session, pinging, longest_sec=1.5)
        insist_on_icmp(pinging)  # on a busy host a stream may be back before the pings have begun
    if not any(isinstance(record, Request) and record.answer for record in records_of(pinging)):
        raise NotMeasured(f"{session.host} answers no ICMP echo requests, which measure the delay")
