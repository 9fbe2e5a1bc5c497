"""The SQLite database that a daemon has to itself."""

import fcntl
import sqlite3
import threading
import time
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from functools import partial
from pathlib import Path
from typing import Any, TextIO

BUSY_TIMEOUT_S = 10
CLAIM_TIMEOUT_S = 1.0  # for a daemon that is just ending
ESCAPED = "backslashreplace"  # what is not UTF-8
SCHEMA = """
    PRAGMA journal_mode = WAL;
    PRAGMA synchronous = FULL;
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
    """One SQLite connection that any thread may use; a change is on disk when its call returns.

    Errors name the file. A BlockingIOError says that another daemon has it.
    """

    def __init__(self, path: Path) -> None:
        self.path = path.resolve()
        self._lock = threading.Lock()
        self._claim = _claim(self.path)
        with self._naming_the_file():
            self._connection = sqlite3.connect(
                self.path, timeout=BUSY_TIMEOUT_S, check_same_thread=False
            )
            # A text that was damaged from outside does not hide the others.
            self._connection.text_factory = partial(str, encoding="utf-8", errors=ESCAPED)
            self._connection.executescript(SCHEMA)
        self._file = _identity(self.path)

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]:
        with self._lock, self._naming_the_file():
            return self._connection.execute(sql).fetchall()

    def fetchone(self, sql: str, parameters: Sequence[Any]) -> tuple[Any, ...] | None:
        with self._lock, self._naming_the_file():
            row: tuple[Any, ...] | None = self._connection.execute(sql, parameters).fetchone()
            return row

    def execute(self, sql: str, parameters: Sequence[Any]) -> None:
        with self._writing():
            self._connection.execute(sql, _storable(parameters))

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        with self._writing():
            self._connection.executemany(sql, map(_storable, rows))

    def close(self) -> None:
        with self._lock:
            self._connection.close()
            self._claim.close()

    @contextmanager
    def _writing(self) -> Iterator[None]:
        """One transaction; an error when nobody will ever find in the file what it wrote."""
        with self._lock, self._naming_the_file(), self._connection:
            yield
            if _identity(self.path) != self._file:
                raise sqlite3.OperationalError("was removed or replaced while in use")

    @contextmanager
    def _naming_the_file(self) -> Iterator[None]:
        try:
            yield
        except sqlite3.Error as error:
            raise type(error)(f"{self.path}: {error}") from error


def _claim(path: Path) -> TextIO:
    """The database's lock file, held until it is closed or the process ends.

    It is never removed: two daemons would each hold a file of that name.
    """
    file = open(f"{path}.lock", "w", encoding="utf-8")
    deadline = time.monotonic() + CLAIM_TIMEOUT_S
    while True:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return file
        except BlockingIOError:
            if time.monotonic() > deadline:
                file.close()
                raise BlockingIOError(f"{path}: another daemon is using it") from None
        time.sleep(CLAIM_TIMEOUT_S / 20)


def _identity(path: Path) -> tuple[int, int] | None:
    """Which file it is; None when there is none."""
    try:
        status = path.stat()
    except FileNotFoundError:
        return None
    return status.st_dev, status.st_ino


def _storable(values: Sequence[Any]) -> list[Any]:
    """The values with lone surrogates in texts escaped: SQLite takes none.

    They reach error texts with the names of files that are not UTF-8.
    """
    return [
        value.encode("utf-8", ESCAPED).decode() if isinstance(value, str) else value
        for value in values
    ]
