"""The program's command `play`: an agent that shows a person what it calls and what it gets.

Its story is what a person would ask of it, a line each: a call, a pause or a comment.
"""

import argparse
import json
import sys
import time
from functools import partial
from typing import Any, TextIO

from quillet.client import Client
from quillet.diagnostics import complain
from quillet.display import answer_text, heading_text
from quillet.exit_status import ExitStatus

MAX_LINE_CHARS = 1_000_000
MAX_WAIT_S = 5
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
        with Client(daemon) as client:
            _play(story, client)
        return ExitStatus.OK
    except (OSError, ValueError, EOFError) as error:
        if not isinstance(error, BrokenPipeError):  # nobody reads on
            complain(error)
        return ExitStatus.FAILED


def _play(story: TextIO, client: Client) -> None:
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
