"""Running one program and finding out what it cost; helpers beside it."""

import contextlib
import dataclasses
import os
import pathlib
import re
import select
import shlex
import signal
import subprocess
import tempfile
import time

from harness.lab import FAR_CPU, NEAR_CPU

ROOT = pathlib.Path(__file__).resolve().parents[2]
TEST_PORT, CLIENT_PORT, IPERF_PORT = 8004, 8003, 5201
GIVE_UP_SECONDS = 200


class NoFigures(Exception):
    """A run that tells nothing; what was printed last says why."""


def bare(name):
    return str(ROOT / "build" / "bench" / "bench" / name)


@dataclasses.dataclass
class Cost:
    wall: float  # seconds
    cpu: float  # seconds, user and system
    status: int


@contextlib.contextmanager
def pinned(cpu):
    """What is started meanwhile stays on that core."""
    ours = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {cpu})
    try:
        yield
    finally:
        os.sched_setaffinity(0, ours)


class Running:
    """A program under way on a host for the length of a `with`. What it prints goes to a file, so that no reader takes
    processor time from it. Started without a copy of this process, it costs what it costs from a shell."""

    def __init__(self, host, command):
        self.output = tempfile.TemporaryFile()
        streams = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                   *((os.POSIX_SPAWN_DUP2, self.output.fileno(), stream) for stream in (1, 2))]
        argv = shlex.split(command)
        with host, pinned(NEAR_CPU):
            self.started = time.monotonic()
            self.process = os.posix_spawnp(argv[0], argv, os.environ, file_actions=streams, setsid=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process:
            self.signal(signal.SIGKILL)
            os.waitpid(self.process, 0)
        self.output.close()

    def signal(self, number):
        os.killpg(self.process, number)

    def finish(self):
        """(cost, output)."""
        descriptor = os.pidfd_open(self.process)
        if not select.select([descriptor], [], [], GIVE_UP_SECONDS)[0]:
            self.signal(signal.SIGKILL)
        os.close(descriptor)
        _, status, used = os.wait4(self.process, 0)
        cost = Cost(time.monotonic() - self.started, used.ru_utime + used.ru_stime, os.waitstatus_to_exitcode(status))
        self.process = None
        self.output.seek(0)
        text = self.output.read().decode(errors="replace")
        if cost.status < 0:  # killed
            raise NoFigures(text)
        return cost, text


def run_measured(host, command):
    with Running(host, command) as running:
        return running.finish()


# A process that this one started would inherit our own peak; a small one in between does not.
MEASURE_MEMORY = "time --quiet -f 'peak %M kB' "


def peak_memory_kb(text):
    found = re.search(r"^peak (\d+) kB$", text, re.MULTILINE)
    return int(found.group(1)) if found else None


class Helper:
    """A program beside the measured one for the length of a `with`; `end()` stops it and returns what it printed. It is
    ready when it holds `port`, or without one when it has printed a line."""

    def __init__(self, host, argv, port=None, cpu=FAR_CPU):
        self.host, self.argv, self.port, self.cpu, self.text = host, argv, port, cpu, None

    def __enter__(self):
        with self.host, pinned(self.cpu):
            self.process = subprocess.Popen(self.argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                            stderr=subprocess.STDOUT, text=True, start_new_session=True)
        deadline = time.monotonic() + 5
        if self.port is None:
            self.process.stdout.readline()
        while self.port and not any(self.host.has_port(self.port, table) for table in ("udp", "tcp", "tcp6")):
            if time.monotonic() > deadline:
                self.end()
                raise RuntimeError(f"{self.argv[0]} did not start: {self.text}")
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if self.text is None:
            self.process.terminate()
            self.text = self.process.communicate()[0]
        return self.text


def far_end(host, row):
    """Who answers the row, or receives what it sends, for the length of a `with`."""
    if not row.far_end:
        return contextlib.nullcontext()
    command, port = {
        "vorn": ([row.vorn, "--server"], TEST_PORT),
        "monitor": ([bare("bare_monitor"), str(TEST_PORT), "1000"], None),
        "sink": ([bare("bare_receiver"), str(TEST_PORT)], None),
        "iperf3": (["iperf3", "--server", "--one-off"], IPERF_PORT),
    }[row.far_end]
    return Helper(host, command, port)


@contextlib.contextmanager
def busy_cores(host):
    with contextlib.ExitStack() as stack:
        for cpu in sorted(os.sched_getaffinity(0)):
            stack.enter_context(Helper(host, ["sh", "-c", "echo; while :; do :; done"], cpu=cpu))
        yield
