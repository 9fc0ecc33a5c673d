# SPDX-License-Identifier: MIT
"""A mesh: hosts that are connected to, rounds of pairs, and within a pair a test each way while both have monitors."""

import asyncio
import contextlib
import dataclasses
from collections.abc import AsyncIterator, Callable, Sequence

from vorn_companions.mesh import far_end
from vorn_companions.mesh.far_end import FarEnd, Haste
from vorn_companions.mesh.inventory import MeshHost
from vorn_companions.mesh.keep import Run, complaint, found_something, is_complete
from vorn_companions.mesh.rounds import rounds
from vorn_companions.program import now_usec

CONNECT_BOUND_SEC = 30  # logging in, too
CONNECTS_AT_ONCE = 10  # as many as an sshd that all of them pass through lets in
MONITOR_BOUND_SEC = 20  # for a monitor to say that it serves
MARGIN_SEC = 15  # that the end of a test may be late
CHECK_SEC = 10
BOUND_STATUSES = (124, 137)  # of timeout(1): ended, killed
SSH_FAILED = 255
MOST_TOLD = 20
SERVES = "Destination IP"
TAKEN = "Could not bind"


class Trouble(Exception):
    """Why something cannot be measured; its text names the host."""


@dataclasses.dataclass
class Member:
    """A host while the mesh lasts."""

    host: MeshHost
    socket: str  # of its shared connection
    connection: FarEnd | None = None
    given_up: str = ""  # why it is not tried again


@dataclasses.dataclass
class Mesh:
    members: list[Member]
    keep: Callable[[Run], None]
    say: Callable[[str], None]
    haste: Haste = dataclasses.field(default_factory=Haste)
    connects: asyncio.Semaphore = dataclasses.field(default_factory=lambda: asyncio.Semaphore(CONNECTS_AT_ONCE))
    told: set[str] = dataclasses.field(default_factory=set)
    rounds: int = 0
    round: int = 0  # that is measured, from 1; 0: connecting
    pairs: int = 0
    pairs_done: int = 0
    measured: int = 0  # ways, of which each pair has two
    failed: int = 0


def tell(mesh: Mesh, text: str) -> None:
    """Each text once, and not too many."""
    if text in mesh.told or len(mesh.told) > MOST_TOLD:
        return
    mesh.told.add(text)
    mesh.say(text if len(mesh.told) <= MOST_TOLD else "more is missing: the matrix of vorn-plot tells all of it")


# --- connections ---

def is_connected(member: Member) -> bool:
    return member.connection is not None and member.connection.process.returncode is None


async def connect(mesh: Mesh, member: Member) -> None:
    """Raises Trouble. A host that was never reached is not tried again, one that was lost is."""
    if member.given_up:
        raise Trouble(member.given_up)
    if is_connected(member):
        return
    first, name = member.connection is None, member.host.name
    try:
        async with mesh.connects:
            member.connection = await far_end.start(far_end.connect_command(member.host, member.socket))
            connection = member.connection
            if await far_end.line_of(connection, connection.output, far_end.READY, CONNECT_BOUND_SEC):
                return
        await far_end.end(connection, mesh.haste.ending_sec())
        why = f"{name} was not reached{'' if first else ' again'}: {far_end.last_words(connection)}"
    except OSError as error:  # no ssh here
        why = f"{name} was not reached: {member.host.ssh[0]}: {error.strerror}"
    if first:
        member.given_up = why
    raise Trouble(why)


async def answers(mesh: Mesh, member: Member) -> bool:
    """Whether the host is there now, at the end of its connection."""
    if not is_connected(member):
        return False
    async with far_end.held(member.host, member.socket, CHECK_SEC, ["true"], mesh.haste) as far:
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(CHECK_SEC):
                return await far.process.wait() == 0
    return False


def loss_of(member: Member) -> str:
    """What to say of a host whose connection or monitor has ended too early."""
    said = member.connection.errors if member.connection and not is_connected(member) else []
    return f"{member.host.name} was lost in the middle{': ' if said else ''}{said[-1].text if said else ''}"


# --- monitors ---

async def serving(member: Member, far: FarEnd) -> None:
    """Waits until a monitor serves. Raises Trouble: one that is there already could be anybody's."""
    serves = await far_end.line_of(far, far.errors, SERVES, MONITOR_BOUND_SEC)
    if any(TAKEN in line.text for line in far.errors):
        raise Trouble(f"{member.host.name} has a monitor already, or another program on its port: end that first")
    if not serves or far.process.returncode is not None:
        raise Trouble(f"{member.host.name} has no monitor: {far_end.last_words(far)}")


@contextlib.asynccontextmanager
async def monitors(mesh: Mesh, pair: Sequence[Member]) -> AsyncIterator[list[FarEnd]]:
    """Monitors of our own on both hosts. Raises Trouble."""
    bound_sec = 2 * sum(member.host.bound_sec + MARGIN_SEC + CHECK_SEC for member in pair) + MONITOR_BOUND_SEC
    started: list[FarEnd] = []
    try:
        for member in pair:
            command = far_end.held_command(member.host, member.socket, bound_sec, [*member.host.program, "--server"])
            started.append(await far_end.start(command))
        results = await asyncio.gather(*map(serving, pair, started), return_exceptions=True)
        for failure in results:
            if failure is not None:
                raise failure
        yield started
    finally:
        await asyncio.gather(*(far_end.end(far, mesh.haste.ending_sec()) for far in started))


# --- tests ---

async def outcome(member: Member, partner: Member, test: FarEnd, monitor: FarEnd) -> str:
    """Waits for the end of a test, or of what it needs; what went wrong, else empty."""
    ends = [asyncio.create_task(far.process.wait()) for far in (test, monitor)]
    try:
        await asyncio.wait(ends, timeout=member.host.bound_sec + MARGIN_SEC, return_when=asyncio.FIRST_COMPLETED)
    finally:
        for task in ends:
            task.cancel()
    if monitor.process.returncode is not None:
        return loss_of(partner)
    if test.process.returncode is None or member.host.ssh and test.process.returncode == SSH_FAILED:
        return loss_of(member)
    bound_ended = test.process.returncode in BOUND_STATUSES
    return f"ended after {member.host.bound_sec} s, its bound" if bound_ended else ""


async def is_founded(mesh: Mesh, partner: Member, monitor: FarEnd, run: Run) -> bool:
    """Whether what is missing in a run is to blame on the network: the partner has been there all the time."""
    return is_complete(run) or monitor.process.returncode is None and await answers(mesh, partner)


async def run_test(mesh: Mesh, member: Member, partner: Member, monitor: FarEnd, arguments: Sequence[str]) -> Run:
    """One test, which is kept at its end, or when we are stopped in the middle."""
    command = [*member.host.program, *arguments, partner.host.address]
    run = Run(member.host.name, partner.host.name, now_usec(), 0, command, trouble="stopped in the middle")
    test = await far_end.start(far_end.held_command(member.host, member.socket, member.host.bound_sec, command))
    try:
        try:
            run.trouble = await outcome(member, partner, test, monitor)
        finally:
            await far_end.end(test, mesh.haste.ending_sec())
            run.lines = sorted([*test.output, *test.errors], key=lambda line: line.time_usec)
            run.end_usec, run.status = now_usec(), test.process.returncode
        if not await is_founded(mesh, partner, monitor, run):
            run.trouble, run.lines = loss_of(partner), []
    finally:
        mesh.keep(run)
    return run


async def measure_way(mesh: Mesh, member: Member, partner: Member, monitor: FarEnd) -> None:
    """Requests and, if any is answered, a stream."""
    for arguments in (member.host.echo, member.host.stream):
        run = await run_test(mesh, member, partner, monitor, arguments)
        if not found_something(run):
            tell(mesh, f"{run.site} to {run.towards}: {complaint(run)}")
            mesh.failed += 1
            return
    mesh.measured += 1


async def measure_pair(mesh: Mesh, pair: Sequence[Member]) -> None:
    ways = [(0, 1), (1, 0)]
    try:
        for member in pair:
            await connect(mesh, member)
        async with monitors(mesh, pair) as started:
            for one, other in ways:
                await measure_way(mesh, pair[one], pair[other], started[other])
    except Trouble as trouble:
        tell(mesh, str(trouble))
        for one, other in ways:
            now = now_usec()
            mesh.keep(Run(pair[one].host.name, pair[other].host.name, now, now, trouble=str(trouble)))
            mesh.failed += 1
    mesh.pairs_done += 1


# --- the mesh ---

async def connect_first(mesh: Mesh, member: Member) -> None:
    with contextlib.suppress(Trouble):  # told by the pairs that miss it
        await connect(mesh, member)


async def measure(mesh: Mesh) -> None:
    """All rounds. However it ends, nothing of ours runs anywhere afterwards."""
    plan = rounds(len(mesh.members))
    mesh.rounds, mesh.pairs = len(plan), sum(map(len, plan))
    try:
        async with asyncio.TaskGroup() as group:
            for member in mesh.members:
                group.create_task(connect_first(mesh, member))
        for pairs in plan:
            mesh.round += 1
            async with asyncio.TaskGroup() as group:
                for pair in pairs:
                    group.create_task(measure_pair(mesh, [mesh.members[place] for place in pair]))
    finally:
        connections = [member.connection for member in mesh.members if member.connection]
        await asyncio.gather(*(far_end.end(connection, mesh.haste.ending_sec()) for connection in connections))
