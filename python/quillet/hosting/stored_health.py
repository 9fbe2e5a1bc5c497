"""The tools' health as the database holds it, whether a daemon is running or not."""

import logging
import sqlite3
from contextlib import closing
from functools import partial
from pathlib import Path
from types import SimpleNamespace
from typing import Any

from quillet.config import ToolsConfig
from quillet.database import ESCAPED, open_to_read
from quillet.tool_handlers import health

BUSY_TIMEOUT_S = 1
Row = tuple[Any, ...]


def read_stored_health(
    database: Path, config: ToolsConfig
) -> tuple[health.ToolHealthTracker, list[str]]:
    """A tracker with the stored history of all tools, and what of it cannot be read, a text each.

    Only for a process that runs no daemon: from then on every tool counts as registered, so that
    tools that are gone are shown, too. Nothing is written or created. An OSError or ValueError
    names a file that is missing, locked, damaged or not a daemon's.
    """
    rows, document = _read(database)
    register_every_tool()
    damaged: list[str] = []
    readable = [row for row in rows if _is_readable(row, config, damaged)]

    def keep_from_log(record: logging.LogRecord) -> bool:
        damaged.append(record.getMessage())
        return False

    health.logger.addFilter(keep_from_log)
    return health.ToolHealthTracker(_repository(readable, document), config), damaged


def register_every_tool() -> None:
    """Has trackers that are made from now on keep the history of any tool and action."""
    any_action = SimpleNamespace(action=lambda name: "an action")
    setattr(health, "TOOLS", SimpleNamespace(get=lambda tool: any_action))


def _read(database: Path) -> tuple[list[Row], Row | None]:
    """The rows of the tools, and the row of the usage document."""
    database.open("rb").close()  # its error says more than SQLite's
    try:
        with closing(open_to_read(database, BUSY_TIMEOUT_S)) as connection:
            connection.text_factory = partial(str, encoding="utf-8", errors=ESCAPED)
            rows = connection.execute(f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health")
            usage = "SELECT value FROM schema_info WHERE key = ?"
            return rows.fetchall(), connection.execute(usage, [health.TOOL_USAGE_KEY]).fetchone()
    except sqlite3.Error as error:
        raise ValueError(f"{database}: {error}") from error


def _is_readable(row: Row, config: ToolsConfig, damaged: list[str]) -> bool:
    try:
        health.ToolHealthTracker(_repository([row], None), config)
    except (ValueError, TypeError, OverflowError) as error:
        damaged.append(f"Could not read the tool_health row of {row[0]!r}: {error}")
        return False
    return True


def _repository(rows: list[Row], document: Row | None) -> Any:
    """One whose database holds what was read."""
    db = SimpleNamespace(fetchall=lambda sql: rows, fetchone=lambda sql, parameters: document)
    return SimpleNamespace(db=db)
