"""The program's command `serve`: a daemon on its standard streams, from start to end."""

import argparse
import asyncio
import sqlite3
from typing import Any

from quillet.config import ToolsConfig, read_tools_config
from quillet.daemon.ending import Ending
from quillet.daemon.flusher import Flusher
from quillet.daemon.session import Session
from quillet.daemon.streams import StandardStreams
from quillet.daemon.tool_pipeline import ToolPipeline, start_handlers
from quillet.diagnostics import complain, start_log
from quillet.repository import Repository
from quillet.stored_health import read_stored_health
from quillet.tool_handlers.health import ToolHealthTracker

START_ERRORS = (OSError, ValueError, TypeError, OverflowError, RuntimeError, sqlite3.Error)


def main(options: argparse.Namespace) -> int:
    """Serves until the input ends or a signal comes; returns the exit status."""
    start_log()
    return asyncio.run(_serve(options))


async def _serve(options: argparse.Namespace) -> int:
    """Nothing in here waits for anything but the loop, so that a signal is served at any time."""
    ending = Ending()
    try:
        handlers = start_handlers()
        # Not on the loop's own threads, which it would wait for in the end.
        opening = asyncio.get_running_loop().run_in_executor(handlers, _open, options)
        either: set[asyncio.Future[Any]] = {opening, ending.status}
        await asyncio.wait(either, return_when=asyncio.FIRST_COMPLETED)
        if ending.status.done():
            return ending.status.result()
        repository, tracker = opening.result()
        with Flusher(tracker) as flusher:
            streams = StandardStreams(handlers.shutdown, ending)
            session = Session(ToolPipeline(repository, tracker, handlers), streams.answer)
            streams.start(session.receive)
            status = await ending.status
            streams.stop()
    except START_ERRORS as error:
        complain(error)
        return 2
    if not flusher.saved:
        return 3
    repository.db.close()
    return status


def _open(options: argparse.Namespace) -> tuple[Repository, ToolHealthTracker]:
    config = read_tools_config(options.config) if options.config else ToolsConfig()
    repository = Repository(options.repository, options.database)
    try:
        return repository, ToolHealthTracker(repository, config)
    except (ValueError, TypeError, OverflowError) as error:
        _, damaged = read_stored_health(repository.db.path, config)
        advice = "correct or delete these rows and start again"
        raise ValueError("\n".join([f"{repository.db.path}: {advice}", *damaged])) from error
