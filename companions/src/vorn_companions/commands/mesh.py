# SPDX-License-Identifier: MIT
"""vorn-mesh: measures every pair of an inventory and keeps what comes of it."""

import argparse
import asyncio
import contextlib
import os
import resource
import signal
import sqlite3
import sys
import tempfile
import time
import types
from collections.abc import Sequence

from vorn_companions.commands.common import PATIENCE_SEC, Progress, add_version
from vorn_companions.mesh.inventory import ECHO, STREAM, MeshHost, Refused, read_hosts
from vorn_companions.mesh.keep import Run, as_json, keep
from vorn_companions.mesh.measure import Member, Mesh, measure
from vorn_companions.program import split_arguments
from vorn_companions.signals import STOP_SIGNALS
from vorn_companions.store import database as store
from vorn_companions.words import Unreadable, printable

DEFAULT_FILE = "mesh.db"


class Stopped(Exception):
    """By this signal, before anything was started."""


# --- what the user sees ---

def show(text: str) -> None:
    """What is going on, in one line of a terminal; the next one, or anything else, takes its place."""
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


def say(text: str) -> None:
    show("")
    lines = [printable(line) for line in text.splitlines()]
    print("vorn-mesh: " + "\n".join(lines), file=sys.stderr, flush=True)


def how_far(mesh: Mesh, passed_sec: float) -> str:
    if not mesh.round:
        return f"connecting to {len(mesh.members)} hosts"
    left = passed_sec / mesh.pairs_done * (mesh.pairs - mesh.pairs_done) if mesh.pairs_done else 0
    unit = f"{left / 60:.0f} min" if left >= 120 else f"{left:.0f} s"
    return (f"round {mesh.round} of {mesh.rounds}, {mesh.pairs_done} of {mesh.pairs} pairs"
            + (f", about {unit} left" if mesh.pairs_done else ""))


async def show_progress(mesh: Mesh) -> None:
    begin = time.monotonic()
    await asyncio.sleep(PATIENCE_SEC)
    while True:
        show(how_far(mesh, time.monotonic() - begin))
        await asyncio.sleep(1)


# --- the mesh, from the file to the signals ---

def kept_or_printed(mesh_store: store.Store, run: Run, label: str, failed: list[str]) -> bool:
    """Whether the run is in the file. Once one is not, all that follow are printed."""
    if not failed:
        try:
            keep(mesh_store, run, label)
            return True
        except sqlite3.Error as error:
            failed.append(str(error))
            say(f"{mesh_store.path}: {error}; what is not kept is printed on standard output, and the mesh ends")
    print(as_json(run, label), flush=True)
    return False


async def run_mesh(hosts: Sequence[MeshHost], opened: store.Store, label: str, folder: str) -> tuple[Mesh, int, bool]:
    """Measures; what has come of it, the signal that stopped it (or 0), and whether all is in the file."""
    loop, task = asyncio.get_running_loop(), asyncio.current_task()
    signals: list[int] = []
    failed: list[str] = []

    def stop() -> None:
        if task and not mesh.haste.stopping:
            mesh.haste.stopping = True
            task.cancel()

    def on_signal(number: int) -> None:
        signals.append(number)
        stop()

    def keep_one(run: Run) -> None:
        if not kept_or_printed(opened, run, label, failed):
            stop()

    members = [Member(host, os.path.join(folder, str(number))) for number, host in enumerate(hosts)]
    mesh = Mesh(members, keep_one, say)
    for each in STOP_SIGNALS:
        if signal.getsignal(each) != signal.SIG_IGN:
            loop.add_signal_handler(each, on_signal, each)
    progress = asyncio.create_task(show_progress(mesh))
    with contextlib.suppress(asyncio.CancelledError):
        await measure(mesh)
    progress.cancel()
    return mesh, signals[0] if signals else 0, not failed


def leave_by(number: int) -> int:
    """Ends this process by the signal, so that shells see it."""
    signal.signal(number, signal.SIG_DFL)
    os.kill(os.getpid(), number)
    return 128 + number


def allow_many_files() -> None:
    """Each host takes up to ten descriptors."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


def summary(mesh: Mesh, path: str) -> str:
    missing = f", {mesh.failed} not" if mesh.failed else ""
    return f"{len(mesh.members)} hosts, {mesh.measured} ways measured{missing}; in {path}"


# --- command line ---

def make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="vorn-mesh", allow_abbrev=False, usage="%(prog)s -i INVENTORY [options] [-- ANSIBLE-ARGUMENTS]",
        description="Measure every pair of hosts of an Ansible inventory, both ways.",
        epilog="Example: vorn-mesh -i hosts -o mesh.db && vorn-plot -k matrix -o mesh.png mesh.db")
    parser.add_argument("-i", dest="inventory", metavar="INVENTORY", required=True, help="hosts, as Ansible knows them")
    parser.add_argument("-o", dest="output", metavar="FILE", default=DEFAULT_FILE,
                        help="the file of records that is appended to (%(default)s)")
    parser.add_argument("--hosts", metavar="PATTERN", help="only these hosts of the inventory")
    parser.add_argument("--label", metavar="NAME", default="mesh",
                        help="a name for these runs, to choose them by (mesh)")
    parser.add_argument("--echo", metavar="ARGUMENTS", help=f"of the echo test ('{ECHO}')")
    parser.add_argument("--stream", metavar="ARGUMENTS", help=f"of the stream ('{STREAM}')")
    add_version(parser)
    return parser


def parse_arguments(arguments: Sequence[str]) -> tuple[argparse.Namespace, list[str]]:
    own, rest = split_arguments(list(arguments))
    return make_parser().parse_args(own), rest


def hosts_of(options: argparse.Namespace, rest: Sequence[str]) -> list[MeshHost]:
    """Raises Refused or Stopped."""
    def stopped(number: int, _frame: types.FrameType | None) -> None:
        raise Stopped(number)

    for number in STOP_SIGNALS:
        if signal.getsignal(number) != signal.SIG_IGN:
            signal.signal(number, stopped)
    with Progress("reading the inventory"):
        hosts = read_hosts(options.inventory, options.hosts, rest, options.echo, options.stream)
    if len(hosts) < 2:
        raise Refused(f"it takes two hosts to measure between them; the inventory has {len(hosts) or 'none'}")
    return hosts


def main(arguments: Sequence[str] | None = None) -> int:
    options, rest = parse_arguments(sys.argv[1:] if arguments is None else arguments)
    try:
        hosts = hosts_of(options, rest)
        opened = store.open_to_write(options.output)
    except Stopped as stopped:
        return leave_by(stopped.args[0])
    except (Refused, Unreadable) as error:
        say(str(error))
        return 2
    allow_many_files()
    with tempfile.TemporaryDirectory(prefix="vorn-mesh-") as folder:
        mesh, stopped_by, kept = asyncio.run(run_mesh(hosts, opened, options.label, folder))
    store.close(opened)
    say(summary(mesh, options.output))
    if stopped_by:
        return leave_by(stopped_by)
    if not kept or not mesh.measured:
        return 2
    return 1 if mesh.failed else 0


if __name__ == "__main__":
    sys.exit(main())
