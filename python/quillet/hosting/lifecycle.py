"""What a program that keeps tools' health does before it serves them, and after."""

import argparse
import asyncio
import sqlite3
from collections.abc import Awaitable, Callable
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from pathlib import Path
from typing import Any

from quillet.config import read_tools_config
from quillet.diagnostics import complain, start_log
from quillet.exit_status import ExitStatus
from quillet.hosting.shutdown import Shutdown
from quillet.hosting.flusher import Flusher
from quillet.hosting.stored_health import read_stored_health
from quillet.repository import Repository, database_of, old_history
from quillet.tool_handlers.health import ToolHealthTracker

START_ERRORS = (OSError, ValueError, TypeError, OverflowError, RuntimeError, sqlite3.Error)
Serve = Callable[[Repository, ToolHealthTracker, Shutdown], Awaitable[int]]


def run(options: argparse.Namespace, serve: Serve) -> int:
    """Opens the stored history, serves, and saves it; returns the exit status."""
    start_log()
    return asyncio.run(_run(options, serve))


async def _run(options: argparse.Namespace, serve: Serve) -> int:
    """Never blocks: a signal must end it at any time, even while the database is opened."""
    shutdown = Shutdown()
    try:
        # Not on the loop's own threads, which it would wait for in the end.
        starter = ThreadPoolExecutor(1, "start")
        opening = asyncio.get_running_loop().run_in_executor(starter, _open, options)
        starter.shutdown(wait=False)
        either: set[asyncio.Future[Any]] = {opening, shutdown.status}
        await asyncio.wait(either, return_when=asyncio.FIRST_COMPLETED)
        if shutdown.status.done():
            return shutdown.status.result()
        repository, tracker = opening.result()
        for note in repository.db.notes.values():
            complain(f"{repository.db.path}: {note}")
        if not options.database and (old := old_history(repository.root)):
            complain(old)
        with Flusher(tracker) as flusher:
            status = await serve(repository, tracker, shutdown)
    except START_ERRORS as error:
        complain(error)
        return ExitStatus.CANNOT_START
    if not flusher.saved:
        return ExitStatus.NOT_SAVED
    repository.db.close()
    return status


def _open(options: argparse.Namespace) -> tuple[Repository, ToolHealthTracker]:
    config = read_tools_config(options.config)
    if options.database and not options.database.parent.is_dir():
        raise FileNotFoundError(f"there is no folder {options.database.parent} for the database")
    repository = Repository(options.repository, options.database or _own(options.repository))
    try:
        return repository, ToolHealthTracker(repository, config)
    except (ValueError, TypeError, OverflowError) as error:
        _, damaged = read_stored_health(repository.db.path, config)
        advice = "correct or delete these rows and start again"
        raise ValueError("\n".join([f"{repository.db.path}: {advice}", *damaged])) from error


def _own(root: Path) -> Path:
    """The folder's own database; without the folder that it lies in, nothing is saved."""
    database = database_of(root)
    with suppress(OSError):
        database.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    return database
