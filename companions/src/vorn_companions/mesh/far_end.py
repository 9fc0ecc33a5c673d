# SPDX-License-Identifier: MIT
"""A command on a host of the mesh, over ssh or on this one, that lasts no longer than we hold its standard input.

However we go away, even by SIGKILL, that input ends: ssh closes the channel, or the kernel the pipe, and a shell at the
far end, which waits for nothing else, ends the command. Where the network itself is gone, nothing can tell the far end,
and the bound that the command was given ends it.
"""

import asyncio
import contextlib
import dataclasses
import shlex
from collections.abc import AsyncIterator, Sequence

from vorn_companions.mesh.inventory import MeshHost
from vorn_companions.program import now_usec

CONNECT_SEC = 10
KEEP_ALIVE = ("-o", "ServerAliveInterval=2", "-o", "ServerAliveCountMax=3")  # a dead host is noticed after 6 to 8 s
KILL_SEC = 2  # after which a command that does not end is killed
ENDING_SEC = 5.0  # for a command to end by itself and its last lines to come
HASTY_SEC = 0.8  # the same once we have been asked to stop
CUT_OFF_SEC = 0.2  # for the death of what was killed
LONGEST_LINE = 1 << 20
READY = "vorn-mesh is ready"

# timeout(1) leads a group of its own, so a wrapper around the program is ended with it. A signal that comes just when
# it has started the program ends timeout alone (coreutils 9.1): whatever is left of the group is ended behind it. A
# background process gets no input of the shell's but by a copy.
HELD = ('exec 3<&0; timeout -k {kill} "$@" </dev/null 3<&- & command=$!; '
        '{{ read -r line; kill "$command"; }} <&3 >/dev/null 2>&1 & watcher=$!; '
        'wait "$command" 2>/dev/null; status=$?; '
        'kill -s TERM -- "-$command" 2>/dev/null; kill "$watcher" 2>/dev/null; exit "$status"').format(kill=KILL_SEC)


@dataclasses.dataclass(frozen=True)
class Line:
    time_usec: int  # since 1970, when it came here
    text: str


@dataclasses.dataclass
class FarEnd:
    process: asyncio.subprocess.Process
    transport: asyncio.SubprocessTransport
    output: list[Line] = dataclasses.field(default_factory=list)
    errors: list[Line] = dataclasses.field(default_factory=list)
    readers: list[asyncio.Task[None]] = dataclasses.field(default_factory=list)
    news: asyncio.Event = dataclasses.field(default_factory=asyncio.Event)  # a line has come, or the end of the lines


@dataclasses.dataclass
class Haste:
    """Whether we have been asked to stop."""

    stopping: bool = False

    def ending_sec(self) -> float:
        return HASTY_SEC if self.stopping else ENDING_SEC


async def read_lines(stream: asyncio.StreamReader, lines: list[Line], news: asyncio.Event) -> None:
    try:
        while data := await stream.readline():
            lines.append(Line(now_usec(), data.decode(errors="replace").rstrip("\r\n")))
            news.set()
    except ValueError:
        lines.append(Line(now_usec(), f"a line of more than {LONGEST_LINE} bytes; what follows is not read"))
    finally:
        news.set()


async def start(command: Sequence[str]) -> FarEnd:
    """Starts a local command that Ctrl-C does not reach: it ends when we say so."""
    loop, pipe = asyncio.get_running_loop(), asyncio.subprocess.PIPE
    transport, protocol = await loop.subprocess_exec(
        lambda: asyncio.subprocess.SubprocessStreamProtocol(limit=LONGEST_LINE, loop=loop), *command, stdin=pipe,
        stdout=pipe, stderr=pipe, start_new_session=True)
    far = FarEnd(asyncio.subprocess.Process(transport, protocol, loop), transport)
    assert far.process.stdout and far.process.stderr
    far.readers += [asyncio.create_task(read_lines(far.process.stdout, far.output, far.news)),
                    asyncio.create_task(read_lines(far.process.stderr, far.errors, far.news))]
    return far


async def end(far: FarEnd, patience_sec: float) -> None:
    """Lets go of a command and takes its last lines. What does not end in time is cut off."""
    assert far.process.stdin
    far.process.stdin.close()
    left = [asyncio.create_task(far.process.wait()), *far.readers]
    await asyncio.wait(left, timeout=patience_sec)
    far.transport.close()  # kills what has not ended, and closes pipes that somebody else still holds
    _, late = await asyncio.wait(left, timeout=CUT_OFF_SEC)
    for task in late:
        task.cancel()


def last_words(far: FarEnd) -> str:
    """What a command that failed said last."""
    said = [line.text.strip() for line in far.errors if line.text.strip()]
    return said[-1] if said else f"ended with status {far.process.returncode}"


# --- connections ---

def connect_command(host: MeshHost, socket: str) -> list[str]:
    """Opens a connection that the commands on this host share, and holds it."""
    here = f"echo {shlex.quote(READY)}; read -r line"
    if not host.ssh:
        return ["sh", "-c", here]
    return [*ssh_options(host, socket, "yes"), host.reached, f"sh -c {shlex.quote(here)}"]


def ssh_options(host: MeshHost, socket: str, master: str) -> list[str]:
    """The first of several values of an option counts: ours for what this way of working needs, else the user's."""
    needed = {"ControlMaster": master, "ControlPath": socket, "ControlPersist": "no", "BatchMode": "yes",
              "RemoteCommand": "none", "ClearAllForwardings": "yes"}
    wanted = {"LogLevel": "ERROR", "ConnectTimeout": str(CONNECT_SEC)}
    return [host.ssh[0], "-T", *(word for name in needed for word in ("-o", f"{name}={needed[name]}")), *host.ssh[1:],
            *(word for name in wanted for word in ("-o", f"{name}={wanted[name]}")), *KEEP_ALIVE]


def held_command(host: MeshHost, socket: str, bound_sec: int, command: Sequence[str]) -> list[str]:
    words = ["sh", "-c", HELD, "vorn-mesh", str(bound_sec), *command]
    return [*ssh_options(host, socket, "no"), host.reached, shlex.join(words)] if host.ssh else words


@contextlib.asynccontextmanager
async def held(host: MeshHost, socket: str, bound_sec: int, command: Sequence[str],
               haste: Haste) -> AsyncIterator[FarEnd]:
    """A command that runs on the host while the context lasts, for at most so long."""
    far = await start(held_command(host, socket, bound_sec, command))
    try:
        yield far
    finally:
        await end(far, haste.ending_sec())


async def line_of(far: FarEnd, lines: list[Line], start: str, patience_sec: float) -> bool:
    """Waits until a line begins so; False when the command ends or time runs out before."""
    with contextlib.suppress(TimeoutError):
        async with asyncio.timeout(patience_sec):
            while not any(line.text.startswith(start) for line in lines):
                if all(reader.done() for reader in far.readers):
                    await far.process.wait()
                    return False
                far.news.clear()
                await far.news.wait()
            return True
    return False
