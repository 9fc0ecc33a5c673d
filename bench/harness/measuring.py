"""Running one program and finding out what it cost; helpers at the far end."""

import dataclasses
import os
import pathlib
import signal
import subprocess
import tempfile
import time

from harness import programs

SENDER_CPU = 0
FAR_CPU = 1
PATIENCE_SECONDS = 5


@dataclasses.dataclass
class Cost:
    wall: float  # seconds
    cpu: float  # seconds, user and system
    memory_kb: int  # peak resident
    status: int


class Measured:
    """A program under way in a namespace for the length of a `with`. What it prints goes to files, one for each stream,
    so that no reader takes processor time from it."""

    def __init__(self, lab, argv, cpu=SENDER_CPU, runs=1, stop_after=0):
        self.directory = tempfile.TemporaryDirectory()
        folder = pathlib.Path(self.directory.name)
        self.report, self.output, self.errors = folder / "report", folder / "output", folder / "errors"
        measure = [programs.bare("measure"), str(self.report), str(cpu), str(runs), str(stop_after), *argv]
        with open(self.output, "wb") as output, open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(lab.command(lab.near, measure), stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=errors, start_new_session=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._stop()
        self.directory.cleanup()

    def finish(self, give_up_after=None):
        """(costs, output); costs are empty when the program had to be given up."""
        try:
            self.process.wait(give_up_after)
        except subprocess.TimeoutExpired:
            self._stop()
            return [], self._printed()
        costs = [_cost(line) for line in self.report.read_text().splitlines()] if self.report.exists() else []
        return costs, self._printed()

    def _printed(self):
        return self.output.read_text(errors="replace") + self.errors.read_text(errors="replace")

    def _stop(self):
        """The launcher passes SIGTERM on and waits for its program. One that does not listen is killed with it: they
        have a session to themselves."""
        if self.process.poll() is not None:
            return
        self.process.terminate()
        try:
            self.process.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()


def _cost(line):
    wall, user, system, memory_kb, status = line.split()
    return Cost(float(wall), float(user) + float(system), int(memory_kb), int(status))


def run_measured(lab, argv, give_up_after=None, **how):
    """One run: (cost or None, output)."""
    with Measured(lab, argv, **how) as measured:
        costs, text = measured.finish(give_up_after)
    return (costs[0] if costs else None), text


class Helper:
    """A program at the far end, or in another namespace, for the length of a `with`; `end()` stops it and returns what
    it printed."""

    def __init__(self, lab, argv, port=None, cpu=FAR_CPU, namespace=None):
        self.lab, self.port = lab, port
        self.text = None
        self.process = subprocess.Popen(lab.command(namespace or lab.far, argv, cpu), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def __enter__(self):
        self._wait_until_ready()
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if self.text is None:
            self.process.terminate()
            self.text = self.process.communicate()[0]
        return self.text

    def _wait_until_ready(self):
        """A bare loop says so; of another program we see its port appear."""
        if self.port is None:
            self.process.stdout.readline()
            return
        for _ in range(200):
            if self.lab.far_port_is_bound(self.port):
                return
            time.sleep(0.01)
        raise RuntimeError("the far end did not start")
