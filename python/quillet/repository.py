"""A repository that the daemon serves, and the SQLite database kept for it."""

import sqlite3
import threading
from collections.abc import Sequence
from pathlib import Path
from typing import Any, Self

OWN_FOLDER = ".quillet"
BUSY_TIMEOUT_S = 10
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
    """One SQLite connection that any thread may use; a change is on disk when its call returns."""

    def __init__(self, path: Path) -> None:
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(path, timeout=BUSY_TIMEOUT_S, check_same_thread=False)
        self._connection.executescript(SCHEMA)

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]:
        with self._lock:
            return self._connection.execute(sql).fetchall()

    def fetchone(self, sql: str, parameters: Sequence[Any]) -> tuple[Any, ...] | None:
        with self._lock:
            return self._connection.execute(sql, parameters).fetchone()

    def execute(self, sql: str, parameters: Sequence[Any]) -> None:
        with self._lock, self._connection:
            self._connection.execute(sql, _storable(parameters))

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        with self._lock, self._connection:
            self._connection.executemany(sql, map(_storable, rows))

    def close(self) -> None:
        with self._lock:
            self._connection.close()


def _storable(values: Sequence[Any]) -> list[Any]:
    """The values with lone surrogates in texts escaped: SQLite takes none.

    They reach error texts with the names of files that are not UTF-8.
    """
    return [
        value.encode("utf-8", "backslashreplace").decode() if isinstance(value, str) else value
        for value in values
    ]


class Repository:
    """A folder of files with its database, which lies in the folder unless it is put elsewhere."""

    def __init__(self, root: Path, database: Path | None = None) -> None:
        self.root = root.resolve()
        if not self.root.is_dir():
            raise NotADirectoryError(f"{root} is not a folder")
        path = database or self.root / OWN_FOLDER / "quillet.db"
        path.parent.mkdir(parents=True, exist_ok=True)
        self.db = Database(path)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.db.close()
