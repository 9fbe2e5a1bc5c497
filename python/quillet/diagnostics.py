"""What a person is told on standard error, and the form in which any text is shown to one."""

import logging
import shutil
import sys
import textwrap
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
    say(f"quillet: {words}")


def start_log() -> None:
    """Shows what the daemon's modules log, with time, in UTC, and level."""
    handler, form = _Handler(), logging.Formatter("%(asctime)s UTC %(levelname)s %(message)s")
    form.default_msec_format = "%s.%03d"
    form.converter = time.gmtime
    handler.setFormatter(form)
    logging.basicConfig(handlers=[handler], level=logging.INFO)


def finish_log() -> None:
    """Waits for the lines to be written, unless nobody reads them."""
    deadline = time.monotonic() + LAST_LINES_S
    while _waiting.unfinished_tasks and time.monotonic() < deadline:
        time.sleep(0.001)


def say(words: str) -> None:
    """Has a text written; not here, as whoever started the program may never read it.

    It may quote what came from elsewhere, so further lines are indented: none can pass for ours.
    """
    lines = [printable(line) for line in words.splitlines()]
    if sys.stderr and sys.stderr.isatty():  # which would break lines amid a word
        width = shutil.get_terminal_size().columns - 2
        wrapped = (textwrap.wrap(line, width, break_on_hyphens=False) for line in lines)
        lines = [part for parts in wrapped for part in parts]
    with suppress(Full):
        _waiting.put_nowait("\n  ".join(lines))
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
            sys.stderr.write(f"{lines}\n")  # in one piece, also beside what other programs write
    _waiting.task_done()


_writer = threading.Thread(target=_write, name="log", daemon=True)


class _Handler(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        say(self.format(record))
