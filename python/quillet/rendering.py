"""Shows answers: as JSON lines to a program, as short lines and tables to a person."""

import json
import shutil
from collections.abc import Iterator
from typing import Any

from quillet.daemon.tool_pipeline import Answer, Outcome

MAX_CELL_CHARS = 50


def as_json(number: int, tool: str, answer: Answer) -> str:
    """The whole answer to the call on a line."""
    return json.dumps({"line": number, "tool": tool, **vars(answer)})


def as_text(number: int, tool: str, answer: Answer) -> str:
    """The answer to the call on a line: a text, tables, or as much as fits on the screen's line."""
    time = "" if answer.duration_ms is None else f"{answer.duration_ms:.1f} ms"
    name = f"{tool} {answer.action or ''}"
    head = f"{number:>3}  {answer.outcome:<8}  {name:<26}  {time:>9}  "
    status = _STATUS.get((tool, answer.action))
    if status and answer.outcome is Outcome.OK:
        return "\n     ".join([head, *status(answer.content)])
    if isinstance(answer.content, str):
        return _printable(head + answer.content)
    return _cut(head + json.dumps(answer.content), shutil.get_terminal_size().columns)


def _health(content: dict[str, Any]) -> Iterator[str]:
    tools = content["tools"]
    usage = [{"tool_name": tool["tool_name"], **row} for tool in tools for row in tool["usage"]]
    yield from _table("tool_name call_count error_count disabled updated_at last_error", tools)
    yield from _table("tool_name action outcome alias_hit calls avg_ms slow", usage)
    yield f"a disabled tool is tried again after {content['cooldown_s']:g} s"
    yield from _threads(content["threads"])


def _threads(report: dict[str, Any]) -> Iterator[str]:
    names = ", ".join(f"{name} {count}" for name, count in report["python_by_name"].items())
    yield f"threads: {report.get('os', 'unknown')}, of them Python's {report['python']} ({names})"
    yield report.get("warning", f"the pools allow {report['budget']}")


def _times(content: dict[str, Any]) -> Iterator[str]:
    yield from _table("name count avg_ms p95_ms min_ms max_ms errors", content["tools"])


_STATUS = {
    ("status", "perf_stats"): _health,
    ("status", "threads"): _threads,
    ("get_tool_performance_stats", None): _times,
}


def _table(keys: str, records: list[dict[str, Any]]) -> Iterator[str]:
    columns = [_column(key, [record[key] for record in records]) for key in keys.split()]
    yield from ("  ".join(line).rstrip() for line in zip(*columns))
    yield ""


def _column(key: str, values: list[Any]) -> list[str]:
    """A heading and its values, all equally wide, numbers to the right."""
    cells = [key.replace("_", " ").upper(), *map(_cell, values)]
    width = max(map(len, cells))
    numeric = any(type(value) in (int, float) for value in values)
    return [cell.rjust(width) if numeric else cell.ljust(width) for cell in cells]


def _cell(value: Any) -> str:
    if isinstance(value, bool):
        return "yes" if value else "no"
    if isinstance(value, float):
        return f"{value:.2f}"
    return "-" if value is None else _cut(_printable(str(value)), MAX_CELL_CHARS)


def _printable(text: str) -> str:
    """A text with the characters escaped that would upset a terminal."""
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in text)


def _cut(text: str, width: int) -> str:
    return text if len(text) <= width else text[: width - 3] + "..."
