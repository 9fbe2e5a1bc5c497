"""The SQLite database that a daemon has to itself."""

import fcntl
import os
import sqlite3
import stat
import threading
import time
from collections.abc import Iterator, Sequence
from contextlib import closing, contextmanager, suppress
from functools import partial
from pathlib import Path
from typing import Any, BinaryIO

BUSY_TIMEOUT_S = 10
CLAIM_TIMEOUT_S = 1.0  # for a daemon that is just ending
NOT_SAVED = "another daemon uses the database: what happens here is not saved"
ESCAPED = "backslashreplace"  # what is not UTF-8
# So ends a journal that names a further one: SQLite would delete the file of that name, wherever.
SUPER_JOURNAL = bytes.fromhex("d9d505f920a163d7")
# Views, triggers, virtual tables, computed columns and computed indexes.
NO_PLAIN_TABLES = """
    SELECT type, name FROM sqlite_schema AS entry
    WHERE NOT (type IS 'table' AND rootpage > 0 OR type IS 'index' AND sql IS NULL)
        OR EXISTS (SELECT 1 FROM pragma_table_xinfo(entry.name) WHERE hidden)
"""
SCHEMA = """
    PRAGMA ignore_check_constraints = ON;
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

    Errors name the file. While another daemon has it, all is done in a copy in memory, and `notes`
    has a warning for whoever asks how the tools fare.
    """

    def __init__(self, path: Path) -> None:
        self.path = path.parent.resolve() / path.name
        self._lock = threading.Lock()
        refuse_strange_files(self.path)
        self._claim = _claim(self.path)
        self.notes = {} if self._claim else {"warning": NOT_SAVED}
        with self._naming_the_file():
            self._connection = sqlite3.connect(self.path, BUSY_TIMEOUT_S, check_same_thread=False)
            refuse_schema_code(self._connection)
            if not self._claim:
                with closing(self._connection) as original:
                    self._connection = sqlite3.connect(":memory:", check_same_thread=False)
                    original.backup(self._connection)
            # A text that was damaged from outside does not hide the others.
            self._connection.text_factory = partial(str, encoding="utf-8", errors=ESCAPED)
            self._connection.executescript(SCHEMA)
        self._file = _identity(self.path)

    def fetchall(self, sql: str) -> list[tuple[Any, ...]]:
        with self._lock, self._naming_the_file():
            return self._connection.execute(sql).fetchall()

    def fetchone(self, sql: str, parameters: Sequence[Any]) -> Any:
        with self._lock, self._naming_the_file():
            return self._connection.execute(sql, parameters).fetchone()

    def execute(self, sql: str, parameters: Sequence[Any]) -> None:
        with self._writing():
            self._connection.execute(sql, _storable(parameters))

    def executemany(self, sql: str, rows: Sequence[Sequence[Any]]) -> None:
        with self._writing():
            self._connection.executemany(sql, map(_storable, rows))

    def close(self) -> None:
        with self._lock:
            self._connection.close()
            if self._claim:
                self._claim.close()

    @contextmanager
    def _writing(self) -> Iterator[None]:
        """One transaction; an error if the file was removed or replaced, and the write is lost."""
        with self._lock, self._naming_the_file(), self._connection:
            yield
            if self._claim and _identity(self.path) != self._file:
                raise sqlite3.OperationalError("was removed or replaced while in use")

    @contextmanager
    def _naming_the_file(self) -> Iterator[None]:
        try:
            yield
        except sqlite3.Error as error:
            raise type(error)(f"{self.path}: {error}") from error


def refuse_strange_files(path: Path) -> None:
    """An OSError when a database's file, or one that SQLite keeps beside it, leads to another."""
    for suffix in ("", "-wal", "-shm", "-journal", ".lock"):
        with suppress(FileNotFoundError):
            if not stat.S_ISREG(os.lstat(f"{path}{suffix}").st_mode):
                raise OSError(f"{path}{suffix} is not a plain file")
    with suppress(FileNotFoundError), open(f"{path}-journal", "rb") as journal:
        journal.seek(max(0, os.fstat(journal.fileno()).st_size - len(SUPER_JOURNAL)))
        if journal.read(len(SUPER_JOURNAL)) == SUPER_JOURNAL:
            raise OSError(f"{path}-journal is not of a daemon's making")


def refuse_schema_code(connection: sqlite3.Connection) -> None:
    """An error for a database that runs code of its own when its tables are read or written."""
    found = connection.execute(NO_PLAIN_TABLES).fetchone()
    if found:
        raise sqlite3.DatabaseError(f"has the {found[0]} {found[1]!r}, only plain tables are used")


def _claim(path: Path) -> BinaryIO | None:
    """The database's lock file, held until it is closed or the process ends; None if another is.

    It is never removed: two daemons would each hold a file of that name.
    """
    # Neither a link is followed nor a pipe waited for, and what is in the file stays.
    flags = os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_NONBLOCK
    file = open(f"{path}.lock", "rb", opener=lambda name, _: os.open(name, flags, 0o666))
    deadline = time.monotonic() + CLAIM_TIMEOUT_S
    while True:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return file
        except BlockingIOError:
            if time.monotonic() > deadline:
                file.close()
                return None
        time.sleep(CLAIM_TIMEOUT_S / 20)


def _identity(path: Path) -> tuple[int, int] | None:
    """Which file it is; None when there is none."""
    with suppress(FileNotFoundError):
        status = path.stat()
        return status.st_dev, status.st_ino
    return None


def _storable(values: Sequence[Any]) -> list[Any]:
    """The values with lone surrogates in texts escaped: SQLite takes none.

    They reach error texts with the names of files that are not UTF-8.
    """
    return [
        value.encode("utf-8", ESCAPED).decode() if isinstance(value, str) else value
        for value in values
    ]
