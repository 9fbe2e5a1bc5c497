"""What a person is told on standard error, and the form in which any text is shown to one."""

import logging
import sys
import threading
import time
from contextlib import suppress
from queue import Full, Queue

MAX_WAITING = 1000
LAST_LINES_S = 0.5

_waiting: Queue[str] = Queue(MAX_WAITING)


def printable(words: str) -> str:
    """A text with the characters escaped that would upset a terminal, or forge a line."""
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in words)


def complain(words: object) -> None:
    """Says what is wrong."""
    _say(f"quillet: {words}")


def start_log() -> None:
    """Shows what the daemon's modules log, with time and level."""
    form = "%(asctime)s %(levelname)s %(message)s"
    logging.basicConfig(handlers=[_Handler()], level=logging.INFO, format=form)


def finish_log() -> None:
    """Waits for the lines to be written, unless nobody reads them."""
    deadline = time.monotonic() + LAST_LINES_S
    while _waiting.unfinished_tasks and time.monotonic() < deadline:
        time.sleep(0.001)


def _say(words: str) -> None:
    """Has a text written; not here, as whoever started the program may never read it.

    It may quote what came from elsewhere, so further lines are indented: none can pass for ours.
    """
    with suppress(Full):
        _waiting.put_nowait("\n  ".join(map(printable, words.splitlines())))
    if not _writer.is_alive():
        with suppress(RuntimeError):  # another thread was faster
            _writer.start()
        if not _writer.is_alive():  # the system has no thread left
            _write_one()


def _write() -> None:
    while True:
        _write_one()


def _write_one() -> None:
    lines = _waiting.get()
    if sys.stderr:  # without one, print would take standard output
        with suppress(OSError):
            print(lines, file=sys.stderr, flush=True)
    _waiting.task_done()


_writer = threading.Thread(target=_write, name="log", daemon=True)


class _Handler(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        _say(self.format(record))
