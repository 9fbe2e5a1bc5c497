"""The SQLite database that a daemon has to itself."""

import fcntl
import sqlite3
import threading
import time
from collections.abc import Iterator, Sequence
from contextlib import closing, contextmanager, suppress
from functools import partial
from pathlib import Path
from typing import Any, BinaryIO

BUSY_TIMEOUT_S = 10
CLAIM_TIMEOUT_S = 1.0  # for a daemon that is just ending
IN_USE = "another daemon uses the database"
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

    Errors name the file. While another daemon has the file, or it cannot be written, all is done
    in a copy in memory, and `notes` has a warning for whoever asks how the tools fare.
    """

    def __init__(self, path: Path) -> None:
        self.path = path.resolve()
        self.notes: dict[str, str] = {}
        self._lock = threading.Lock()
        self._claim: BinaryIO | None = None
        with self._naming_the_file():
            try:
                self._claim = _claim(self.path)
                self._connection = sqlite3.connect(path, BUSY_TIMEOUT_S, check_same_thread=False)
                self._connection.executescript(SCHEMA)
            except (OSError, sqlite3.OperationalError) as error:
                self._work_on_a_copy(error)
        # A text that was damaged from outside does not hide the others.
        self._connection.text_factory = partial(str, encoding="utf-8", errors=ESCAPED)
        self._file = _identity(self.path)

    def _work_on_a_copy(self, why: Exception) -> None:
        """In memory, as nothing can be saved."""
        self.notes["warning"] = f"{why}: what happens here is not saved"
        if self._claim:
            self._claim.close()
            self._claim = None
        self._connection = sqlite3.connect(":memory:", check_same_thread=False)
        if self.path.exists():
            with closing(open_to_read(self.path, CLAIM_TIMEOUT_S)) as original:
                original.backup(self._connection)
        self._connection.executescript(SCHEMA)

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


def open_to_read(path: Path, timeout_s: float) -> sqlite3.Connection:
    """A connection that neither writes nor creates anything, whether a daemon is running or not."""
    # A reader of a database in WAL mode creates its log unless told that nobody else writes.
    uri = path.resolve().as_uri()
    if any(Path(f"{path}-{log}").exists() for log in ("wal", "journal")):
        connection = sqlite3.connect(f"{uri}?mode=ro", uri=True, timeout=timeout_s)
        try:
            connection.execute("SELECT 1 FROM sqlite_master")
            return connection
        except sqlite3.OperationalError as error:
            connection.close()
            if error.sqlite_errorcode == sqlite3.SQLITE_BUSY:
                raise
            # A full disk has no room for the log's index.
    return sqlite3.connect(f"{uri}?immutable=1", uri=True, timeout=timeout_s)


def _claim(path: Path) -> BinaryIO:
    """The database's lock file, held until it is closed or the process ends.

    It is never removed: two daemons would each hold a file of that name.
    """
    file = open(f"{path}.lock", "ab")
    deadline = time.monotonic() + CLAIM_TIMEOUT_S
    while True:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return file
        except BlockingIOError:
            if time.monotonic() > deadline:
                file.close()
                raise BlockingIOError(IN_USE) from None
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
