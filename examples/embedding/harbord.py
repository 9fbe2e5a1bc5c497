"""harbord, a daemon in one file, keeps its tools' health with the plain module `health`.

Reads calls, "TOOL ARGUMENT" on a line each, until its input ends or SIGTERM comes, and answers
them in order. Its one argument is the path of its SQLite database.
"""

import asyncio
import contextlib
import logging
import signal
import sqlite3
import sys
import threading
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any, NamedTuple

import health

FLUSH_PERIOD_S = 2.0
SCHEMA = """
    CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT NOT NULL PRIMARY KEY,
        call_count INTEGER NOT NULL,
        error_count INTEGER NOT NULL,
        last_error TEXT,
        disabled_at TEXT,
        updated_at TEXT NOT NULL
    );
    CREATE TABLE IF NOT EXISTS schema_info (key TEXT NOT NULL PRIMARY KEY, value TEXT);
"""


class Database:
    """One SQLite connection that any thread may use; a change is on disk when its call returns."""

    def __init__(self, path: str) -> None:
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(path, check_same_thread=False)
        self._connection.executescript(SCHEMA)

    def fetchall(self, sql: str) -> list[Any]:
        with self._lock:
            return self._connection.execute(sql).fetchall()

    def fetchone(self, sql: str, parameters: Sequence[Any]) -> Any:
        with self._lock:
            return self._connection.execute(sql, parameters).fetchone()

    def execute(self, sql: str, parameters: Sequence[Any]) -> None:
        self.executemany(sql, [parameters])

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        with self._lock, self._connection:  # which commits, or rolls back
            self._connection.executemany(sql, rows)


class Repository(NamedTuple):
    db: Database


class Limits(NamedTuple):
    disable_after_errors: int = 2
    disable_cooldown_s: float = 60.0


class Tool(NamedTuple):
    handler: Callable[[str], Any]

    def action(self, name: object) -> None:
        """No tool has named actions here."""


TOOLS = {"size": Tool(lambda path: Path(path).stat().st_size), "upper": Tool(str.upper)}
health.TOOLS = TOOLS
health.is_slow_call = lambda tool, action: False


async def call(tracker: health.ToolHealthTracker, name: str, argument: str) -> str:
    """The answer to a call. The tracker is asked and told on the loop, the handler runs aside."""
    disabled, last_error = tracker.is_disabled(name)
    if disabled:
        tracker.record_call(name, None, "disabled", alias_hit=False, duration_ms=None)
        return f"{name} is disabled: {last_error!r}"
    started = time.perf_counter()
    try:
        answer = await asyncio.to_thread(TOOLS[name].handler, argument)
    except Exception as error:
        # Names of files that are not UTF-8 bring lone surrogates, which SQLite does not take.
        text = str(error).encode(errors="backslashreplace").decode()
        tracker.record_error(name, text)
        tracker.record_call(name, None, "error", alias_hit=False, duration_ms=None)
        return f"{name} failed: {text}"
    elapsed_ms = (time.perf_counter() - started) * 1000
    tracker.record_success(name)
    tracker.record_call(name, None, "ok", alias_hit=False, duration_ms=elapsed_ms)
    return str(answer)


async def keep_saved(tracker: health.ToolHealthTracker, end: asyncio.Event) -> None:
    """Flushes now and then and at the end, one flush at a time, in a thread that may wait."""
    ended = False
    while not ended:
        with contextlib.suppress(TimeoutError):
            await asyncio.wait_for(end.wait(), FLUSH_PERIOD_S)
        ended = end.is_set()  # before the flush: an end amid it asks for one more
        try:
            await asyncio.to_thread(tracker.flush)
        except Exception as error:
            logging.warning("Could not save the tools' health this time: %s", error)


async def main(path: str) -> None:
    loop, lines, end = asyncio.get_running_loop(), asyncio.StreamReader(), asyncio.Event()
    pipe, _ = await loop.connect_read_pipe(lambda: asyncio.StreamReaderProtocol(lines), sys.stdin)
    loop.add_signal_handler(signal.SIGTERM, pipe.close)  # the call under way ends as usual
    repository = Repository(Database(path))
    tracker = await asyncio.to_thread(health.ToolHealthTracker, repository, Limits())
    saving = asyncio.create_task(keep_saved(tracker, end))
    async for line in lines:
        name, _, argument = line.decode(errors="backslashreplace").strip().partition(" ")
        known = name in TOOLS
        print(await call(tracker, name, argument) if known else f"no tool {name!r}", flush=True)
    end.set()
    await saving


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1]))
