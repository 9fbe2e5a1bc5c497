"""The tracker's rules in ordinary Python: what the extension module is measured against."""

import json
import logging
import threading
import time
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import Any

TIMESTAMP = "%Y-%m-%d %H:%M:%S"
COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
USAGE_KEY = "tool_usage"
UPSERT = f"""INSERT INTO tool_health ({COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at"""

UsageKey = tuple[str, str | None, str, bool]

logger = logging.getLogger(__name__)


@dataclass(slots=True)
class ToolState:
    """One tool's health."""

    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0


@dataclass(slots=True)
class Usage:
    """The calls counted under one usage key and their handlers' time."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0


def timestamp(epoch: float | None) -> str | None:
    """The text under which the health table stores a time."""
    if epoch is None:
        return None
    return datetime.fromtimestamp(epoch, timezone.utc).strftime(TIMESTAMP)


def epoch(text: str | None) -> float | None:
    """The time that a stored text names; None when it names none."""
    if not text:
        return None
    try:
        return datetime.strptime(text, TIMESTAMP).replace(tzinfo=timezone.utc).timestamp()
    except ValueError:
        return None


class PlainTracker:
    """Tool health in memory, mirrored in the repository's database."""

    def __init__(self, repository: Any, limits: Any, tools: Any, is_slow_call: Any) -> None:
        self._repo = repository
        self._limits = limits
        self._tools = tools
        self._is_slow_call = is_slow_call
        self._lock = threading.Lock()
        self._state: dict[str, ToolState] = {}
        self._dirty: set[str] = set()
        self._usage: dict[UsageKey, Usage] = {}
        self._usage_dirty = False
        self._load()
        self._load_usage()

    @property
    def cooldown_s(self) -> float:
        """How long a disabled tool stays disabled."""
        return self._limits.disable_cooldown_s

    @property
    def has_unsaved_changes(self) -> bool:
        """Whether a flush has anything to write."""
        with self._lock:
            return bool(self._dirty) or self._usage_dirty

    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        """Whether the tool is disabled, and its last error; its cooldown over, it is enabled."""
        with self._lock:
            state = self._state.get(tool_name)
            if state is None or state.disabled_at is None:
                return False, None
            now = time.time()
            if not now - state.disabled_at >= self.cooldown_s:
                return True, state.last_error
            state.consecutive_errors = 0
            state.disabled_at = None
            state.updated_at = now
            self._dirty.add(tool_name)
            return False, None

    def record_success(self, tool_name: str) -> None:
        """Count a call that succeeded, which enables the tool."""
        with self._lock:
            state = self._state_of(tool_name)
            state.call_count += 1
            state.consecutive_errors = 0
            state.disabled_at = None
            state.updated_at = time.time()
            self._dirty.add(tool_name)

    def record_error(self, tool_name: str, error: str) -> None:
        """Count a call that failed, and disable the tool when its run of errors is long enough."""
        with self._lock:
            state = self._state_of(tool_name)
            state.call_count += 1
            state.error_count += 1
            state.consecutive_errors += 1
            state.last_error = error[:500] if error else ""
            state.updated_at = time.time()
            if state.consecutive_errors >= self._limits.disable_after_errors:
                state.disabled_at = state.updated_at
            self._dirty.add(tool_name)

    def record_call(
        self, tool_name: str, action: Any, outcome: str, *, alias_hit: bool, duration_ms: Any
    ) -> None:
        """Count a call under its usage key."""
        key = (tool_name, action, outcome, alias_hit)
        with self._lock:
            usage = self._usage.get(key)
            if usage is None:
                usage = self._usage[key] = Usage()
            usage.calls += 1
            if duration_ms is not None:
                usage.timed_calls += 1
                usage.total_ms += duration_ms
            self._usage_dirty = True

    def flush(self) -> int:
        """Write what changed; returns the number of rows written."""
        return self._flush_health() + self._flush_usage()

    def get_health_summary(self) -> list[dict[str, Any]]:
        """One record per tool, the worst first, each with its usage rows."""
        with self._lock:
            names = dict.fromkeys([*self._state, *(key[0] for key in self._usage)])
            pairs = [(name, self._state.get(name) or ToolState()) for name in names]
            pairs.sort(key=lambda pair: (-pair[1].error_count, -pair[1].call_count))
            return [
                {
                    "tool_name": name,
                    "call_count": state.call_count,
                    "error_count": state.error_count,
                    "last_error": state.last_error,
                    "disabled": state.disabled_at is not None,
                    "disabled_at": timestamp(state.disabled_at),
                    "updated_at": timestamp(state.updated_at),
                    "usage": self._usage_rows(name),
                }
                for name, state in pairs
            ]

    def _state_of(self, tool_name: str) -> ToolState:
        state = self._state.get(tool_name)
        if state is None:
            state = self._state[tool_name] = ToolState()
        return state

    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]:
        rows = [
            {
                "action": action,
                "outcome": outcome,
                "alias_hit": alias_hit,
                "calls": used.calls,
                "avg_ms": round(used.total_ms / used.timed_calls, 2) if used.timed_calls else None,
                "slow": self._is_slow_call(tool_name, action),
            }
            for (tool, action, outcome, alias_hit), used in self._usage.items()
            if tool == tool_name
        ]
        rows.sort(key=lambda r: (-r["calls"], str(r["action"]), r["outcome"], r["alias_hit"]))
        return rows

    def _load(self) -> None:
        try:
            rows = self._repo.db.fetchall(f"SELECT {COLUMNS} FROM tool_health")
            removed = [(row[0],) for row in rows if self._tools.get(row[0]) is None]
            if removed:
                self._repo.db.executemany("DELETE FROM tool_health WHERE tool_name = ?", removed)
        except Exception as error:
            logger.warning("Could not read the tool health history: %s", error)
            return
        with self._lock:
            for name, calls, errors, last_error, disabled_at, updated_at in rows:
                if self._tools.get(name) is not None:
                    times = epoch(disabled_at), epoch(updated_at) or 0.0
                    counts = int(calls or 0), int(errors or 0)
                    self._state[name] = ToolState(*counts, last_error, *times)

    def _load_usage(self) -> None:
        try:
            query = "SELECT value FROM schema_info WHERE key = ?"
            row = self._repo.db.fetchone(query, (USAGE_KEY,))
            items = json.loads(row[0]) if row and isinstance(row[0], str) else []
            loaded = {
                (str(i["tool"]), i["action"], str(i["outcome"]), bool(i["alias_hit"])): Usage(
                    int(i["calls"]), int(i["timed_calls"]), float(i["total_ms"])
                )
                for i in items
            }
        except Exception as error:
            logger.warning("Could not read the tool usage counts: %s", error)
            return
        known = {key: usage for key, usage in loaded.items() if self._known(key[0], key[1])}
        with self._lock:
            self._usage.update(known)
            self._usage_dirty = len(known) < len(loaded)

    def _known(self, tool: str, action: str | None) -> bool:
        spec = self._tools.get(tool)
        return spec is not None and (action is None or spec.action(action) is not None)

    def _flush_health(self) -> int:
        with self._lock:
            names = sorted(self._dirty)
            self._dirty.clear()
            rows = [self._health_row(name, self._state[name]) for name in names]
        if not rows:
            return 0
        try:
            self._repo.db.executemany(UPSERT, rows)
        except BaseException:
            with self._lock:
                self._dirty.update(names)
            raise
        return len(rows)

    @staticmethod
    def _health_row(name: str, state: ToolState) -> tuple[Any, ...]:
        times = timestamp(state.disabled_at), timestamp(state.updated_at)
        return (name, state.call_count, state.error_count, state.last_error, *times)

    def _flush_usage(self) -> int:
        with self._lock:
            if not self._usage_dirty:
                return 0
            self._usage_dirty = False
            document = [
                {
                    "tool": tool,
                    "action": action,
                    "outcome": outcome,
                    "alias_hit": alias_hit,
                    "calls": usage.calls,
                    "timed_calls": usage.timed_calls,
                    "total_ms": round(usage.total_ms, 3),
                }
                for (tool, action, outcome, alias_hit), usage in self._usage.items()
            ]
        try:
            text = json.dumps(document, separators=(",", ":"))
            query = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"
            self._repo.db.execute(query, (USAGE_KEY, text))
        except BaseException:
            with self._lock:
                self._usage_dirty = True
            raise
        return len(document)
