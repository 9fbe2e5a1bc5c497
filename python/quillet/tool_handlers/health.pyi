"""Tool health: which tools fail, which are disabled, and how all of them are used."""

import logging
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, NotRequired, Protocol, TypeAlias, TypedDict, type_check_only

# Types for checkers, not in the module: import them under `typing.TYPE_CHECKING`. First what the
# module is given.

@type_check_only
class Row(Protocol):
    """Its columns go by position: a tuple or an `sqlite3.Row`, among others."""

    def __getitem__(self, column: int, /) -> Any: ...

@type_check_only
class Database(Protocol):
    """Synchronous; what a call has changed is durable when it returns."""

    def fetchall(self, sql: str, /) -> Sequence[Row]: ...
    def fetchone(self, sql: str, parameters: tuple[Any, ...], /) -> Row | None: ...
    def execute(self, sql: str, parameters: tuple[Any, ...], /) -> object: ...
    def executemany(self, sql: str, rows: list[tuple[Any, ...]], /) -> object: ...

@type_check_only
class Repository(Protocol):
    @property
    def db(self) -> Database: ...

@type_check_only
class Limits(Protocol):
    @property
    def disable_after_errors(self) -> int: ...
    @property
    def disable_cooldown_s(self) -> float: ...

@type_check_only
class ToolSpec(Protocol):
    def action(self, name: Any, /) -> object:
        """The entry of an action; None for what the tool lacks."""

@type_check_only
class Tools(Protocol):
    def get(self, tool: Any, /) -> ToolSpec | None: ...

@type_check_only
class TimingCollector(Protocol):
    def get_all_stats(self) -> Sequence[Mapping[str, Any]]: ...

@type_check_only
class ThreadCensus(Protocol):
    @property
    def os_threads(self) -> int | None: ...
    @property
    def python_total(self) -> int: ...
    @property
    def python_threads(self) -> Mapping[str, int]: ...

# The answers.

# None, a text, or whatever else an edited row may hold.
_StoredText: TypeAlias = str | int | float | bytes | None

@type_check_only
class UsageRow(TypedDict):
    """The calls of one action, outcome and use of a synonym; `avg_ms` is their mean time."""

    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None
    slow: bool

@type_check_only
class HealthRecord(TypedDict):
    """One tool of `get_health_summary`; times are in UTC, "YYYY-MM-DD HH:MM:SS"."""

    tool_name: str
    call_count: int
    error_count: int
    last_error: _StoredText
    disabled: bool
    disabled_at: str | None
    updated_at: str
    usage: list[UsageRow]

@type_check_only
class ToolPerformance(TypedDict):
    """One tool of `handle_get_tool_performance_stats`; the values are the collector's own."""

    name: str
    count: int
    avg_ms: float
    p95_ms: float
    min_ms: float
    max_ms: float
    errors: int

@type_check_only
class ToolPerformanceStats(TypedDict):
    tools: list[ToolPerformance]

@type_check_only
class ThreadReport(TypedDict):
    os: NotRequired[int]
    python: int
    python_by_name: dict[str, int]
    budget: int
    warning: NotRequired[str]

# The module. First the daemon's own objects: found where the module is installed, unless set here.

TOOLS: Tools
ToolsConfig: Callable[[], Limits]
is_slow_call: Callable[[str, str | None], bool]
get_timing_collector: Callable[[], TimingCollector]
thread_census: Callable[[], ThreadCensus]

__version__: str
logger: logging.Logger
TOOL_USAGE_KEY: Final = "tool_usage"

class ToolHealthTracker:
    """The health of a repository's tools.

    Counts every call, disables a tool that keeps failing and tries it again after a cooldown. The
    state is kept in memory and mirrored into the repository's database. The constructor reads the
    mirror and `flush` writes it; both may block. No other operation waits for the database, and
    all may be called from any thread.
    """

    def __init__(self, repository: Repository, limits: Limits | None = None) -> None:
        """Reads the history; one that cannot be read is logged as a warning and left out.

        Args:
            repository: its attribute `db` is the database connection.
            limits: the settings, with `disable_after_errors` (a number of calls) and
                `disable_cooldown_s` (seconds); a default ToolsConfig when None.

        Raises IndexError, OverflowError, TypeError or ValueError for a stored row that does not
        convert.
        """
    @property
    def limits(self) -> Limits:
        """The settings, as given to the constructor."""
    @property
    def cooldown_s(self) -> float:
        """How many seconds a disabled tool stays disabled."""
    @property
    def has_unsaved_changes(self) -> bool:
        """Whether `flush` has anything to write."""
    def record_call(
        self,
        tool_name: str,
        action: str | None,
        outcome: str,
        *,
        alias_hit: bool,
        duration_ms: float | None,
    ) -> None:
        """Count a call under its tool, action, outcome and use of a synonym.

        Args:
            tool_name: the tool's name.
            action: the action that ran, or None for a tool without actions.
            outcome: how the call ended.
            alias_hit: whether the call named a parameter or an action by a synonym.
            duration_ms: how long the handler ran, in milliseconds, or None when it did not run or
                did not answer.

        Raises TypeError for a missing or wrong argument and OverflowError for a time that no float
        holds, and then counts nothing.
        """
    def record_success(self, tool_name: str) -> None:
        """Record a successful call: ends the tool's run of errors and enables it."""
    def record_error(self, tool_name: str, error: str | None) -> None:
        """Record a failed call. The first 500 characters of `error` are kept; None is empty.

        The error that completes a run of `limits.disable_after_errors` disables the tool, and so
        does each one after it: the cooldown counts from the latest.
        """
    def is_disabled(self, tool_name: str) -> tuple[bool, _StoredText]:
        """Whether the tool is disabled: (False, None), or (True, its last error).

        A disabled tool whose cooldown has passed is enabled by this call. A tool never seen is not
        disabled.
        """
    def flush(self) -> int:
        """Write what changed to the database, which blocks, and return the number of rows written.

        Those are the changed tools' and, if any count changed, every row of the usage document. A
        write that fails raises the database's error; what it was to write goes out with the next
        flush.
        """
    def get_health_summary(self) -> list[HealthRecord]:
        """Every tool with its health and usage, new: most errors first, then most calls.

        A tool's usage has most calls first. Whatever `is_slow_call` raises is passed on.
        """
    @property
    def _repo(self) -> Repository: ...
    @property
    def _limits(self) -> Limits: ...
    @property
    def _state(self) -> dict[str, _ToolState]:
        """A copy of the tools' states."""
    @property
    def _dirty(self) -> set[str]:
        """A copy of the set of tools to be written."""
    @property
    def _usage(self) -> dict[_UsageKey, _Usage]:
        """A copy of the counts."""
    @property
    def _usage_dirty(self) -> bool: ...
    def _usage_rows(self, tool_name: str) -> list[UsageRow]:
        """One tool's usage, as in the summary."""
    def _load(self) -> None: ...
    def _load_usage(self) -> None: ...
    def _flush_health(self) -> int: ...
    def _flush_usage(self) -> int: ...

def handle_get_tool_performance_stats() -> ToolPerformanceStats:
    """The performance metrics of all tools, in the timing collector's order and with its values.

    Raises KeyError for a record of the collector's that lacks one of them.
    """

def thread_census_report(budget: int, census: ThreadCensus | None = None) -> ThreadReport:
    """A report on the process's threads, with a warning when there are more than the budget.

    Args:
        budget: the most threads that the process's pools allow.
        census: a ThreadCensus; one is taken now, which may block, when None.

    `os`, the operating system's count, is left out where it has none. Raises TypeError for a budget
    that is no integer and AttributeError for a census that lacks a field.
    """

_SQLITE_TIMESTAMP: Final = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS: Final = (
    "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
)
_UsageKey: TypeAlias = tuple[str, str | None, str, bool]  # tool, action, outcome, alias_hit

@dataclass
class _ToolState:
    """What is known about one tool's health; times in epoch seconds."""

    call_count: int = 0
    error_count: int = 0
    last_error: _StoredText = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass
class _Usage:
    """The calls that one usage key counts, and their handlers' time in milliseconds."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0

def _sqlite_time(epoch: float | None) -> str | None:
    """The timestamp text, in UTC, of a time in epoch seconds.

    Raises ValueError for a time outside the years 1 to 9999.
    """

def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a timestamp text; None when it is None, empty or cannot be read.

    Raises TypeError for a value that is neither empty nor text.
    """

def _known(tool: object, action: object) -> bool:
    """Whether the registry has the tool and, unless `action` is None, that action."""
