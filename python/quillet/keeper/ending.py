"""How a program that serves on its loop comes to its end."""

import asyncio
import signal
from contextlib import suppress

from quillet.diagnostics import complain

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Ending:
    """Waits for the first reason to end, a signal or another; what comes later changes nothing.

    `status` is the exit status then. Made on the loop.
    """

    def __init__(self) -> None:
        self._loop = asyncio.get_running_loop()
        self.status: asyncio.Future[int] = self._loop.create_future()
        for number in SIGNALS:
            if signal.getsignal(number) is not signal.SIG_IGN:  # as nohup has it
                self._loop.add_signal_handler(number, self._end, 128 + number)

    def end(self, status: int, why: object = None) -> None:
        """Gives the reason, in words if a person should know; from any thread."""
        with suppress(RuntimeError):  # the loop is closed: the process is about to end
            self._loop.call_soon_threadsafe(self._end, status, why)

    def _end(self, status: int, why: object = None) -> None:
        if not self.status.done():
            self.status.set_result(status)
            if why:
                complain(why)
