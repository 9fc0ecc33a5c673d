# SPDX-License-Identifier: MIT
"""What a mesh has measured, as runs of the file of records."""

import dataclasses
import json

from vorn_companions.mesh.far_end import Line
from vorn_companions.read import lines
from vorn_companions.read.records import REPLY, Batch, Message, Record, Request, Totals
from vorn_companions.store import database as store
from vorn_companions.words import printable


@dataclasses.dataclass
class Run:
    """One test that a host made towards another, or why it could not be made."""

    site: str  # who measured
    towards: str
    start_usec: int
    end_usec: int
    command: list[str] = dataclasses.field(default_factory=list)  # empty: not even begun
    status: int | None = None
    lines: list[Line] = dataclasses.field(default_factory=list)
    trouble: str = ""


def record_of(line: Line) -> Record:
    return lines.record_of(line.text) or Message(f"not understood: {printable(line.text.strip())}", True)


def found_something(run: Run) -> bool:
    """Whether anything has come back."""
    records = map(record_of, run.lines)
    return any(isinstance(record, Batch) and record.received > 0
               or isinstance(record, Request) and record.answer == REPLY for record in records)


def is_complete(run: Run) -> bool:
    """Whether all that was sent has come, as far as the program tells."""
    def has_all(record: object) -> bool:
        return (not isinstance(record, Request) or record.answer == REPLY) \
            and (not isinstance(record, Batch) or record.received == record.size) \
            and (not isinstance(record, Totals) or record.received == record.sent)
    return found_something(run) and all(map(has_all, map(record_of, run.lines)))


def complaint(run: Run) -> str:
    """What to say of a run that has found nothing."""
    said = [record.text for record in map(record_of, run.lines) if isinstance(record, Message) and record.trouble]
    return run.trouble or (said[-1] if said else "no answer")


def keep_run(target: store.Store, run: Run, label: str) -> None:
    """Inside `store.write`. A text that a run repeats is kept once."""
    number = store.begin_run(target, run.command, run.start_usec, run.site, label)
    target.db.execute("UPDATE run SET asked = ? WHERE id = ?", (run.towards, number))
    troubles = {run.trouble: 1} if run.trouble else {}
    for line in run.lines:
        record = record_of(line)
        if not isinstance(record, Message):
            store.append(target, number, line.time_usec, record)
        elif record.trouble:
            troubles[record.text] = troubles.get(record.text, 0) + 1
    for text, count in troubles.items():
        times = f" ({count} times)" if count > 1 else ""
        store.append(target, number, run.start_usec, Message(text + times, True))
    store.end_run(target, number, run.end_usec, run.status)


def keep(target: store.Store, run: Run, label: str) -> None:
    """One transaction. Raises sqlite3.Error."""
    store.write(target, lambda opened: keep_run(opened, run, label))


def as_json(run: Run, label: str) -> str:
    """A run that could not be kept, whole, as one line."""
    return json.dumps({**dataclasses.asdict(run), "label": label})
