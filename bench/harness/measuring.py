"""Running one program and finding out what it cost; helpers at the far end."""

import contextlib
import dataclasses
import pathlib
import subprocess
import tempfile
import time

from harness import programs

SENDER_CPU = 0
FAR_CPU = 1


@dataclasses.dataclass
class Cost:
    wall: float  # seconds
    cpu: float  # seconds, user and system
    memory_kb: int  # peak resident
    status: int


class Measured:
    """A program under way in a namespace, its output in a file: no reader takes processor time from it."""

    def __init__(self, lab, argv, cpu=SENDER_CPU, runs=1, stop_after=0):
        self.directory = tempfile.TemporaryDirectory()
        folder = pathlib.Path(self.directory.name)
        self.report, self.output = folder / "report", folder / "output"
        measure = [programs.bare("measure"), str(self.report), str(cpu), str(runs), str(stop_after), *argv]
        with open(self.output, "wb") as output:
            self.process = subprocess.Popen(lab.command(lab.near, measure), stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.STDOUT, start_new_session=True)

    def finish(self, give_up_after=None):
        """(costs, output); costs are empty when the program had to be given up."""
        try:
            self.process.wait(give_up_after)
        except subprocess.TimeoutExpired:
            subprocess.run(["kill", "--", f"-{self.process.pid}"], check=False)
            self.process.wait()
        text = self.output.read_text(errors="replace")
        costs = [_cost(line) for line in self.report.read_text().splitlines()] if self.report.exists() else []
        self.directory.cleanup()
        return costs, text


def _cost(line):
    wall, user, system, memory_kb, status = line.split()
    return Cost(float(wall), float(user) + float(system), int(memory_kb), int(status))


def run_measured(lab, argv, give_up_after=None, **how):
    """One run: (cost or None, output)."""
    costs, text = Measured(lab, argv, **how).finish(give_up_after)
    return (costs[0] if costs else None), text


class Helper:
    """A program at the far end for the length of a `with`; `end()` stops it and returns what it printed."""

    def __init__(self, lab, argv, port=None, cpu=FAR_CPU):
        self.lab, self.port = lab, port
        self.process = subprocess.Popen(lab.command(lab.far, argv, cpu), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def __enter__(self):
        self._wait_until_ready()
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if self.process.poll() is None:
            self.process.terminate()
        with contextlib.suppress(ValueError):
            return self.process.communicate()[0]
        return ""

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
