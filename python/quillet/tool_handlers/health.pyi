"""Tool health: which tools fail, which are disabled, and how all of them are used."""

import logging
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, NotRequired, Protocol, TypeAlias, TypedDict, type_check_only

# Types for checkers, which the module does not have at run time: import them under
# `typing.TYPE_CHECKING`. First what the module is given.

@type_check_only
class Row(Protocol):
    """Its columns are read by position: a tuple and a `sqlite3.Row` both fit."""

    def __getitem__(self, column: int, /) -> Any: ...

@type_check_only
class Database(Protocol):
    """Ordinary functions, not coroutines; when one returns, what it has changed is committed."""

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
        """An entry for the action; None if the tool has no such action."""

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

# A text or None; whatever else a row may hold that was edited by hand.
_StoredText: TypeAlias = str | int | float | bytes | None

@type_check_only
class UsageRow(TypedDict):
    """The calls with one action, one outcome, and with a synonym or without.

    `avg_ms` is the mean of the times that were reported, None if there were none; `slow` is what
    `is_slow_call` says of the tool and the action.
    """

    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None
    slow: bool

@type_check_only
class HealthRecord(TypedDict):
    """One tool in `get_health_summary`; times are in UTC, in the form "YYYY-MM-DD HH:MM:SS"."""

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
    """One tool in `handle_get_tool_performance_stats`; the values are those of the collector."""

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

# The module. First the objects of the daemon: set them here, or the module imports them from the
# package that it is installed in.

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

    Counts every call, disables a tool that keeps failing, and enables it again after a cooldown.
    The state is in memory, with a copy in the repository's database, which the constructor reads
    and `flush` writes: both block. No other function waits for the database, and all may be called
    from any thread.
    """

    def __init__(self, repository: Repository, limits: Limits | None = None) -> None:
        """Read the history. If it cannot be read, log a warning and start without it.

        Args:
            repository: its attribute `db` is the database.
            limits: the settings, with `disable_after_errors` (a number of errors in a row) and
                `disable_cooldown_s` (seconds); if None, `ToolsConfig()`.

        Raises IndexError, OverflowError, TypeError or ValueError for a stored row that cannot be
        converted.
        """
    @property
    def limits(self) -> Limits:
        """The settings, as given to the constructor."""
    @property
    def cooldown_s(self) -> float:
        """How many seconds a tool stays disabled after its latest error."""
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
        """Count a call: by tool, action, outcome, and whether it used a synonym.

        Args:
            tool_name: the tool's name.
            action: the action that ran, or None for a tool without actions.
            outcome: how the call ended, in a word of your choice.
            alias_hit: whether the call named a parameter or an action by a synonym.
            duration_ms: how long the handler ran, in milliseconds; None if it did not run or did
                not answer.

        Raises TypeError for a missing or wrong argument, and OverflowError for a time that does not
        fit into a float; then the call is not counted.
        """
    def record_success(self, tool_name: str) -> None:
        """Record a successful call. It ends the tool's run of errors and enables the tool."""
    def record_error(self, tool_name: str, error: str | None) -> None:
        """Record a failed call and the first 500 characters of its error; None is stored as "".

        After `limits.disable_after_errors` errors in a row the tool is disabled. Each further error
        disables it anew: the cooldown starts at the latest.
        """
    def is_disabled(self, tool_name: str) -> tuple[bool, _StoredText]:
        """Whether the tool is disabled: (False, None), or (True, its last error).

        If the cooldown of a disabled tool has passed, this call enables it. A tool that was never
        recorded is not disabled.
        """
    def flush(self) -> int:
        """Write what has changed to the database, and return the number of rows written.

        These are the rows of the tools that changed and, if any count changed, all rows of the
        usage document. This blocks: call it in a worker thread, and never run two at once. If a
        write fails, the database's error is raised, and the next flush tries again.
        """
    def get_health_summary(self) -> list[HealthRecord]:
        """A new record of every tool: those with most errors first, then those with most calls.

        The usage in a record has most calls first. Whatever `is_slow_call` raises is passed on.
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
    """The performance of all tools, in the order and with the values of the timing collector.

    Raises KeyError if one of the collector's records lacks a value.
    """

def thread_census_report(budget: int, census: ThreadCensus | None = None) -> ThreadReport:
    """A report on the process's threads, with a warning when there are more than the budget.

    Args:
        budget: the most threads that the process's pools allow.
        census: a ThreadCensus; if None, one is taken now, which may block.

    `os`, the operating system's count, is left out if it is not known. Raises TypeError if the
    budget is not an integer, and AttributeError if the census lacks a field.
    """

_SQLITE_TIMESTAMP: Final = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS: Final = (
    "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
)
_UsageKey: TypeAlias = tuple[str, str | None, str, bool]  # tool, action, outcome, alias_hit

@dataclass
class _ToolState:
    """The health of one tool; times are in seconds since 1970."""

    call_count: int = 0
    error_count: int = 0
    last_error: _StoredText = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass
class _Usage:
    """The calls counted under one usage key, and the total time of their handlers."""

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
