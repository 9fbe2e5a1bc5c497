"""The program's command `play`: an agent that shows a person what it calls and what it gets.

Its story is what a person would ask of it, a line each: a call, a pause or a comment.
"""

import argparse
import json
import subprocess
import sys
import threading
import time
from contextlib import suppress
from functools import partial
from queue import Empty, SimpleQueue
from typing import IO, Any, TextIO

from quillet.client import Client
from quillet.diagnostics import complain, finish_log, say
from quillet.display import answer_text, heading_text
from quillet.exit_status import ExitStatus

MAX_LINE_CHARS = 1_000_000
MAX_WAIT_S = 5
QUIET_S = 0.02  # the log is written beside the answers, not before them
LAST_LINES_S = 1.0
CALL_FORM = '{"tool": text, "arguments": object}'
WAIT_FORM = f'{{"wait_s": 0 to {MAX_WAIT_S}}}'


def main(options: argparse.Namespace) -> int:
    """Plays a story; returns the exit status."""
    daemon = [sys.executable, "-I" if sys.flags.isolated else "-P", "-m", "quillet", "serve"]
    for name in ("repository", "database", "config"):
        if value := getattr(options, name):
            daemon += [f"--{name}", str(value)]
    try:
        story = open(options.story or 0, encoding="utf-8", errors="surrogateescape")
        if story.isatty():
            complain(f"waiting for calls, {CALL_FORM} a line; Ctrl-D ends")
        with Client(daemon, stderr=subprocess.PIPE) as client:
            log = Log(client.daemon.stderr)
            try:
                _play(story, client, log)
            finally:
                client.end()
                log.finish()
        return ExitStatus.OK
    except (OSError, ValueError, EOFError) as error:
        if not isinstance(error, BrokenPipeError):  # nobody reads on
            complain(error)
        return ExitStatus.FAILED


class Log:
    """What the daemon logs, shown between the answers: amid the calls, a line would mislead."""

    def __init__(self, source: IO[bytes] | None) -> None:
        assert source
        self._lines: SimpleQueue[str] = SimpleQueue()
        self._reader = threading.Thread(target=self._read, args=[source], name="log", daemon=True)
        self._reader.start()

    def finish(self) -> None:
        """Shows the last lines of a daemon that has ended."""
        self._reader.join(LAST_LINES_S)
        self.show()

    def show(self) -> None:
        """Shows the lines that came since the last time."""
        with suppress(Empty):
            while True:
                say(self._lines.get(timeout=QUIET_S))
        finish_log()

    def _read(self, source: IO[bytes]) -> None:
        for line in source:
            self._lines.put(line.decode(errors="backslashreplace"))


def _play(story: TextIO, client: Client, log: Log) -> None:
    client.ask("server/discover")  # so that a daemon that cannot start says so before all else
    calls = 0
    lines = iter(partial(story.readline, MAX_LINE_CHARS), "")
    for number, line in enumerate(lines, 1):
        match _step(line.strip(), number):
            case str() as words:
                print(heading_text(words), flush=True)
            case {"wait_s": seconds}:
                time.sleep(seconds)
            case {"tool": tool, "arguments": arguments}:
                calls += 1
                started = time.perf_counter()
                result = client.call(tool, arguments)
                ms = (time.perf_counter() - started) * 1000
                print(answer_text(calls, tool, arguments, result, ms), flush=True)
                log.show()


def _step(line: str, number: int) -> Any:
    """A comment's words, or a call or pause; a ValueError names a line that is none of these."""
    if not line or line.startswith("#"):
        return line.lstrip("# ")
    try:
        match json.loads(line):
            case {"tool": str(), "arguments": dict()} as call if len(call) == 2:
                return call
            case {"wait_s": int() | float() as seconds} as wait if len(wait) == 1:
                if 0 <= seconds <= MAX_WAIT_S:
                    return wait
        raise ValueError(f"neither {CALL_FORM} nor {WAIT_FORM}")
    except (ValueError, RecursionError) as error:
        raise ValueError(f"line {number}: {error}") from error
