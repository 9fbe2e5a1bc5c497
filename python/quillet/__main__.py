"""Serves tool calls from a file or standard input, one JSON line each."""

import argparse
import os
import signal
import sqlite3
import sys
import threading
from contextlib import ExitStack
from io import TextIOWrapper
from queue import SimpleQueue
from typing import TextIO

from quillet import stored_status
from quillet.config import ToolsConfig, read_tools_config
from quillet.daemon.flusher import Flusher
from quillet.daemon.tool_pipeline import ToolPipeline
from quillet.diagnostics import complain, log_to_standard_error
from quillet.options import parse_options
from quillet.player import Player
from quillet.repository import Repository
from quillet.stored_health import read_stored_health
from quillet.tool_handlers.health import ToolHealthTracker


def main() -> int:
    """The program; returns its exit status, as `--help` lists them."""
    log_to_standard_error()
    if not isinstance(sys.stdout, TextIOWrapper):
        complain("standard output is closed")
        return 2
    sys.stdout.reconfigure(errors="backslashreplace")
    if sys.argv[1:2] == ["status"]:
        return stored_status.main(sys.argv[2:])
    options = parse_options(sys.argv[1:])
    with ExitStack() as stack:
        try:
            config = read_tools_config(options.config) if options.config else ToolsConfig()
            lines = _open(options)
            repository = stack.enter_context(Repository(options.repository, options.database))
            tracker = _start_tracker(repository, config)
        except (OSError, ValueError, TypeError, OverflowError, sqlite3.Error) as error:
            complain(error)
            return 2
        flusher = stack.enter_context(Flusher(tracker))
        player = Player(ToolPipeline(repository, tracker), options.text or sys.stdout.isatty())
        status = _play_until_signal(player, lines)
    return status if flusher.saved else 3


def _open(options: argparse.Namespace) -> TextIO:
    """The calls. They are not closed, as a thread may be reading them when the program ends."""
    # As in file names, bytes that are not UTF-8 come through unharmed.
    lines = open(options.calls or 0, encoding="utf-8", errors="surrogateescape")
    if lines.isatty():
        complain("waiting for calls, a line each; --help shows their form, Ctrl-D ends")
    return lines


def _start_tracker(repository: Repository, config: ToolsConfig) -> ToolHealthTracker:
    try:
        return ToolHealthTracker(repository, config)
    except (ValueError, TypeError, OverflowError) as error:
        _, damaged = read_stored_health(repository.db.path, config)
        advice = "correct or delete these rows and start again"
        raise ValueError("\n  ".join([f"{repository.db.path}: {advice}", *damaged])) from error


def _play_until_signal(player: Player, lines: TextIO) -> int:
    """The exit status: of the played lines, or of the signal that came first.

    Signals that come later change nothing, so that what follows is not cut short.
    """
    ended: SimpleQueue[int] = SimpleQueue()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) is not signal.SIG_IGN:  # as nohup has it
            signal.signal(number, lambda number, _: ended.put(128 + number))
    play = threading.Thread(
        target=lambda: ended.put(0 if player.play(lines) else 1), name="player", daemon=True
    )
    play.start()
    status = ended.get()
    player.stop()
    return status


if __name__ == "__main__":
    try:
        status = main()
        if sys.stdout:
            sys.stdout.flush()
    except KeyboardInterrupt:
        status = 130
    except OSError as error:
        complain(f"standard output: {error}")
        status = 1
    # Threads may still be reading lines or running a handler: nothing waits for these.
    os._exit(status)
