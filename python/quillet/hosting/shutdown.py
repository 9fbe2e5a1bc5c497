"""How a program that serves on an event loop shuts down."""

import asyncio
import signal
from contextlib import suppress

from quillet.diagnostics import complain
from quillet.exit_status import killed_by

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Shutdown:
    """Waits for the first request to shut down, by a signal or from within; later ones are ignored.

    `status` is the exit status then. Make it on the event loop.
    """

    def __init__(self) -> None:
        self._loop = asyncio.get_running_loop()
        self.status: asyncio.Future[int] = self._loop.create_future()
        for number in SIGNALS:
            if signal.getsignal(number) is not signal.SIG_IGN:  # as nohup has it
                self._loop.add_signal_handler(number, self._begin, killed_by(number))

    def request(self, status: int, why: object = None) -> None:
        """Requests it, from any thread; `why` is told to a person."""
        with suppress(RuntimeError):  # the loop is closed: the process is about to end
            self._loop.call_soon_threadsafe(self._begin, status, why)

    def _begin(self, status: int, why: object = None) -> None:
        if not self.status.done():
            self.status.set_result(status)
            if why:
                complain(why)
