"""Shows answers: as JSON lines to a program, as short lines and tables to a person."""

import json
import math
from collections.abc import Iterable
from datetime import timedelta
from typing import Any

from rich.console import RenderableType
from rich.padding import Padding
from rich.text import Text

from quillet.daemon.tool_pipeline import Answer, Outcome
from quillet.next_try import next_try
from quillet.screen import on_screen, table, text

INDENT = 5
STYLES: dict[str, str] = {
    Outcome.OK: "green",
    Outcome.ERROR: "red",
    Outcome.DISABLED: "yellow",
    Outcome.INVALID: "magenta",
}
WARNING = "bold red"
TOOLS = {
    "tool": "tool_name",
    "calls": "call_count",
    "errors": "error_count",
    "last error": "last_error",
}
USAGE = {
    "tool": "name",
    "outcome": "outcome",
    "synonym": "alias_hit",
    "calls": "calls",
    "mean ms": "avg_ms",
    "slow": "slow",
}
TIMES = {
    "tool": "name",
    "calls": "count",
    "errors": "errors",
    "mean ms": "avg_ms",
    "p95 ms": "p95_ms",
    "min ms": "min_ms",
    "max ms": "max_ms",
}


def as_json(number: int, tool: str, answer: Answer) -> str:
    """The whole answer to the call on a line."""
    return json_text({"line": number, "tool": tool, **vars(answer)})


def as_text(number: int, tool: str, answer: Answer) -> str:
    """The answer to the call: a line on how it ended, and below it what there is to say."""
    time = "" if answer.duration_ms is None else f"  {answer.duration_ms:.1f} ms"
    outcome = Text(f"{answer.outcome:<10}", STYLES[answer.outcome])
    head = Text.assemble(f"{number:>3}  ", outcome, text(_name(tool, answer.action)), (time, "dim"))
    return on_screen([head, *(Padding(part, (0, 0, 0, INDENT)) for part in _parts(tool, answer))])


def as_heading(line: str) -> str:
    """A played line that is no call: a comment stands out, an empty one stays so."""
    return on_screen([text(line.lstrip("#").strip(), "bold")])


def status_text(status: dict[str, Any]) -> str:
    """The status of a database's tools, for a person."""
    damaged = [text(problem, WARNING) for problem in status["damaged"]]
    count = sum(tool["disabled"] for tool in status["tools"])
    head = f"{status['database']}: {len(status['tools'])} tools, {count} disabled"
    return on_screen([text(head, "bold"), *damaged, *_health(status)])


def json_text(value: Any) -> str:
    """The value as JSON: bytes as text, and null for a number that JSON does not have."""
    return json.dumps(_plain(value))


def _plain(value: Any) -> Any:
    match value:
        case dict():
            return {key: _plain(inner) for key, inner in value.items()}
        case list():
            return [_plain(inner) for inner in value]
        case bytes():
            return value.decode("utf-8", "backslashreplace")
        case float() if not math.isfinite(value):
            return None
    return value


def _parts(tool: str, answer: Answer) -> Iterable[RenderableType]:
    if isinstance(answer.content, str):
        return [text(answer.content)]
    report = _REPORTS.get((tool, answer.action))
    if report:
        return report(answer.content)
    line = text(json_text(answer.content))
    line.no_wrap, line.overflow = True, "ellipsis"
    return [line]


def _health(content: dict[str, Any]) -> list[RenderableType]:
    tools = content["tools"]
    usage = [
        {"name": _name(tool["tool_name"], row["action"]), **row}
        for tool in tools
        for row in tool["usage"]
    ]
    disabled = [_disabled(tool, content["cooldown_s"]) for tool in tools if tool["disabled"]]
    threads = ["", *_threads(content["threads"])] if "threads" in content else []
    return [*disabled, *table(TOOLS, tools, {}), *table(USAGE, usage, STYLES), *threads]


def _name(tool: str, action: object) -> str:
    return tool if action is None else f"{tool} {action}"


def _disabled(tool: dict[str, Any], cooldown_s: float) -> Text:
    moment, seconds = next_try(tool["disabled_at"], cooldown_s)
    match seconds:
        case None:
            again = "never"
        case 0:
            again = "at the next call"
        case _:
            again = f"at {moment} UTC, in {timedelta(seconds=seconds)}"
    since = f"{tool['tool_name']}: disabled since {tool['disabled_at']} UTC"
    return text(f"{since}, tried again {again}", STYLES[Outcome.DISABLED])


def _threads(report: dict[str, Any]) -> list[RenderableType]:
    names = ", ".join(f"{name} {count}" for name, count in report["python_by_name"].items())
    count = report.get("os", "unknown")
    warning = report.get("warning")
    budget = text(warning, WARNING) if warning else text(f"the pools allow {report['budget']}")
    return [text(f"threads: {count}, of them Python's {report['python']} ({names})"), budget]


def _times(content: dict[str, Any]) -> list[RenderableType]:
    return table(TIMES, content["tools"], {})


_REPORTS = {
    ("status", "perf_stats"): _health,
    ("status", "threads"): _threads,
    ("get_tool_performance_stats", None): _times,
}
