# SPDX-License-Identifier: MIT
"""The one way in which the companions answer signals: noted, passed on, and whoever waits is woken."""

import os
import select
import signal
import subprocess
import time
from collections.abc import Iterable
from types import FrameType, TracebackType
from typing import Any

STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Stop:
    """While it is entered, stop signals are noted in place of ending this process; what is ignored stays ignored.

    `process`, when there is one, gets every signal too. The program ends properly at the first, at once at the second.
    """

    def __init__(self, numbers: Iterable[signal.Signals] = STOP_SIGNALS) -> None:
        self.signal: int | None = None
        self.process: subprocess.Popen[bytes] | None = None
        self._numbers = tuple(numbers)
        self._before: dict[int, Any] = {}

    def __enter__(self) -> "Stop":
        self._wake, self._wakes = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        self._woken_before = signal.set_wakeup_fd(self._wakes, warn_on_full_buffer=False)
        for number in self._numbers:
            if signal.getsignal(number) != signal.SIG_IGN:
                self._before[number] = signal.signal(number, self._note)
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        signal.set_wakeup_fd(self._woken_before)
        for number, before in self._before.items():
            signal.signal(number, before)
        os.close(self._wake)
        os.close(self._wakes)

    def _note(self, number: int, _frame: FrameType | None) -> None:
        if number in STOP_SIGNALS:
            self.signal = number
        if self.process and self.process.poll() is None:
            self.process.send_signal(number)

    def follow(self, process: subprocess.Popen[bytes] | None) -> None:
        """From now on signals go to this process; also the one that came before there was a process."""
        self.process = process
        if process and self.signal and process.poll() is None:
            process.send_signal(self.signal)

    def readable(self, descriptor: int | None, seconds: float | None) -> bool:
        """Waits until there is something to read, so many seconds have passed or a signal comes; whether there is."""
        watched = [self._wake] if descriptor is None else [self._wake, descriptor]
        ready, _, _ = select.select(watched, [], [], seconds)
        if self._wake in ready:
            os.read(self._wake, 512)
        return descriptor in ready

    def pause(self, seconds: float) -> None:
        """Sleeps, but not through a signal that stops."""
        end = time.monotonic() + seconds
        while not self.signal and (left := end - time.monotonic()) > 0:
            self.readable(None, left)

    def leave(self) -> None:
        """Ends this process by the signal that came, so that shells see it."""
        if self.signal:
            signal.signal(self.signal, signal.SIG_DFL)
            os.kill(os.getpid(), self.signal)
