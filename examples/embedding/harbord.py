"""harbord.py DATABASE: a daemon in one file, which keeps its tools' health with `health`.

Answers calls, "TOOL ARGUMENT" on a line each, in order, until its input ends or a signal comes.
"""

import asyncio
import fcntl
import signal
import socket
import sqlite3
import sys
import threading
import time
from collections.abc import Callable
from concurrent.futures import Future
from typing import Any, NamedTuple

import health

FLUSH_PERIOD_S, TIMEOUT_S = 2.0, 30.0
SCHEMA = """
    CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT NOT NULL PRIMARY KEY, call_count INTEGER NOT NULL,
        error_count INTEGER NOT NULL, last_error TEXT, disabled_at TEXT, updated_at TEXT NOT NULL
    );
    CREATE TABLE IF NOT EXISTS schema_info (key TEXT NOT NULL PRIMARY KEY, value TEXT);
"""


class Database:
    """One SQLite connection that any thread may use; a change is on disk when its call returns."""

    def __init__(self, path: str) -> None:
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(path, check_same_thread=False)
        self._connection.executescript(SCHEMA)

    def fetchall(self, sql: str, parameters: tuple[Any, ...] = ()) -> list[tuple[Any, ...]]:
        with self._lock:
            return self._connection.execute(sql, parameters).fetchall()

    def fetchone(self, sql: str, parameters: tuple[Any, ...]) -> tuple[Any, ...] | None:
        return next(iter(self.fetchall(sql, parameters)), None)

    def execute(self, sql: str, parameters: tuple[Any, ...]) -> None:
        self.executemany(sql, [parameters])

    def executemany(self, sql: str, rows: list[tuple[Any, ...]]) -> None:
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


health.TOOLS = TOOLS = {
    "connect": Tool(lambda port: socket.create_connection(("localhost", int(port))).close()),
    "upper": Tool(str.upper),
}
health.is_slow_call = lambda tool, action: tool == "connect"


def aside(work: Callable[..., Any], *arguments: Any) -> asyncio.Future[Any]:
    """As `asyncio.to_thread`, but what hangs takes no place in a pool and holds up no end."""
    result = Future[Any]()
    result.set_running_or_notify_cancel()  # whoever stops waiting leaves it alone

    def run() -> None:
        try:
            result.set_result(work(*arguments))
        except BaseException as error:
            result.set_exception(error)

    threading.Thread(target=run, daemon=True).start()
    return asyncio.wrap_future(result)


async def call(tracker: health.ToolHealthTracker, name: str, argument: str) -> str:
    """The answer to a call. The tracker is asked and told on the loop, the handler runs aside."""
    outcome, duration_ms, started = "cancelled", None, time.perf_counter()
    try:
        disabled, last_error = tracker.is_disabled(name)
        if disabled:
            outcome = "disabled"
            return f"{name} is disabled: {last_error!r}"
        async with asyncio.timeout(TIMEOUT_S) as limit:
            answer = await aside(TOOLS[name].handler, argument)
        outcome, duration_ms = "ok", (time.perf_counter() - started) * 1000
        tracker.record_success(name)
        return str(answer)
    except (OverflowError, ValueError) as error:  # which say here that the caller is at fault
        outcome = "invalid"
        return f"{name} was called wrongly: {error}"
    except (Exception, SystemExit) as error:
        outcome = "error"
        text = f"no answer within {TIMEOUT_S:g} s" if limit.expired() else str(error)
        text = text.encode(errors="backslashreplace").decode()  # SQLite takes no lone surrogates
        tracker.record_error(name, text)
        return f"{name} failed: {text}"
    finally:
        tracker.record_call(name, None, outcome, alias_hit=False, duration_ms=duration_ms)


async def serve(tracker: health.ToolHealthTracker) -> None:
    lines = open(0, errors="backslashreplace", closefd=False)  # a pipe, a terminal or a file
    while line := await aside(lines.readline):
        name, _, text = line.strip().partition(" ")
        print(await call(tracker, name, text) if name in TOOLS else f"no tool {name}", flush=True)


async def main(path: str) -> None:
    """Serves, and saves now and then and at the end, one flush at a time."""
    lock = open(f"{path}.lock", "a")  # held until the process ends, however it does
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit(f"{path} is in use by another process")
    if not health.TOOLS:
        sys.exit("no tools: a tracker would delete the history of all")
    tracker = await aside(lambda: health.ToolHealthTracker(Repository(Database(path)), Limits()))
    serving = asyncio.create_task(serve(tracker))
    for number in signal.SIGINT, signal.SIGTERM:
        asyncio.get_running_loop().add_signal_handler(number, serving.cancel)
    while not (await asyncio.wait([serving], timeout=FLUSH_PERIOD_S))[0]:
        try:
            await aside(tracker.flush)
        except Exception as error:
            print(f"Could not save the tools' health this time: {error}", file=sys.stderr)
    await aside(tracker.flush)
    if not serving.cancelled():
        serving.result()  # raises what ended it, if that was an error


if __name__ == "__main__":
    path = sys.argv[1] if len(sys.argv) == 2 else sys.exit(f"usage: {__doc__}")
    asyncio.run(main(path))
