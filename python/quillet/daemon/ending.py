"""How a program that serves on its loop comes to its end."""

import asyncio
import signal

from quillet.diagnostics import complain

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Ending:
    """Waits for the first reason to end, a signal or another; what comes later changes nothing.

    `status` is the exit status then. Made on the loop.
    """

    def __init__(self) -> None:
        loop = asyncio.get_running_loop()
        self.status: asyncio.Future[int] = loop.create_future()
        for number in SIGNALS:
            if signal.getsignal(number) is not signal.SIG_IGN:  # as nohup has it
                loop.add_signal_handler(number, self.end, 128 + number)

    def end(self, status: int, why: object = None) -> None:
        """Gives the reason, and in words if a person should know."""
        if not self.status.done():
            self.status.set_result(status)
            if why:
                complain(why)
