"""Shows a person what tools answer: as short lines and tables, as wide as the terminal is."""

import json
from collections.abc import Iterable, Mapping, Sequence
from typing import Any

from rich.console import Console, RenderableType
from rich.padding import Padding
from rich.table import Table
from rich.text import Text

from quillet.diagnostics import printable
from quillet.hosting.next_try import next_try_text

INDENT = 5
OUTCOMES = {False: ("ok", "green"), True: ("failed", "red")}
DISABLED = "yellow"
WARNING = "bold red"


def answer_text(
    number: int, tool: str, arguments: Mapping[str, Any], result: dict[str, Any], ms: float
) -> str:
    """A call and its result: a line on how it ended, and below it what there is to say."""
    outcome, style = OUTCOMES[bool(result.get("isError", True))]
    asked = ", ".join(f"{name}={value!r}" for name, value in arguments.items())
    call = (_text(f"{tool}({asked})"), (f"  {ms:.1f} ms", "dim"))
    head = Text.assemble(f"{number:>3}  ", (f"{outcome:<7}", style), *call)
    return _on_screen([head, *(Padding(part, (0, 0, 0, INDENT)) for part in _parts(result))])


def heading_text(words: str) -> str:
    """What a story says between its calls."""
    return _on_screen([_text(words, "bold")])


def status_text(status: dict[str, Any]) -> str:
    """The status of a database's tools."""
    damaged = [_text(problem, WARNING) for problem in status["damaged"]]
    count = sum(tool["disabled"] for tool in status["tools"])
    head = f"{status['database']}: {len(status['tools'])} tools, {count} disabled"
    assumed = f"a cooldown of {status['cooldown_s']} s is assumed; --config tells the daemon's"
    hints = [_text(assumed)] if count and status["cooldown_assumed"] else []
    return _on_screen([_text(head, "bold"), *damaged, *hints, *_health(status)])


def _parts(result: dict[str, Any]) -> list[RenderableType]:
    content: dict[str, Any] | None = result.get("structuredContent")
    if content is None:
        texts = [part["text"] for part in result.get("content", ())] or [result["message"]]
        return [_text(words) for words in texts]
    if "cooldown_s" in content:
        return _health(content)
    if "tools" in content:
        return _table(content["tools"])
    line = _text(json.dumps(content, ensure_ascii=False))
    line.no_wrap, line.overflow = True, "ellipsis"
    return [line, *(_text(content[key], WARNING) for key in content if key == "warning")]


def _health(health: dict[str, Any]) -> list[RenderableType]:
    """A line on each tool that failed, and how the calls of all ended."""
    tools = health["tools"]
    failed = [tool for tool in tools if tool["error_count"] or tool["disabled"]]
    usage = [
        {
            "tool": f"{tool['tool_name']} {row['action'] or ''}".rstrip(),
            "outcome": row["outcome"],
            "synonym": row["alias_hit"],
            "calls": row["calls"],
            "mean_ms": row["avg_ms"],
        }
        for tool in tools
        for row in tool["usage"]
    ]
    return [*(_failures(tool, health["cooldown_s"]) for tool in failed), *_table(usage)]


def _failures(tool: dict[str, Any], cooldown_s: float) -> Text:
    words = [f"{tool['tool_name']}: {tool['error_count']} of {tool['call_count']} runs failed"]
    if tool["disabled"]:
        words.append(f"disabled since {tool['disabled_at']} UTC")
        words.append(next_try_text(tool["disabled_at"], cooldown_s))
    words.append(f"last error: {tool['last_error']}")
    return _text("; ".join(words), DISABLED if tool["disabled"] else "")


def _on_screen(parts: Iterable[RenderableType]) -> str:
    """The parts below each other, as standard output's terminal takes them."""
    console = Console(highlight=False)
    with console.capture() as capture:
        console.print(*parts, sep="\n")
    return "\n".join(line.rstrip() for line in capture.get().splitlines())


def _text(words: str, style: str = "") -> Text:
    """A text as a terminal can show it."""
    return Text(printable(words), style)


def _table(records: Sequence[Mapping[str, Any]]) -> list[RenderableType]:
    """The records' values under their names, numbers to the right; an empty line first."""
    grid = Table(box=None, pad_edge=False, header_style="bold")
    for name in records[0] if records else ():
        numeric = any(type(record[name]) in (int, float) for record in records)
        heading = name.replace("_", " ").upper()
        grid.add_column(heading, justify="right" if numeric else "left", overflow="fold")
    for record in records:
        grid.add_row(*(_text(_cell(value)) for value in record.values()))
    return ["", grid] if records else []


def _cell(value: Any) -> str:
    match value:
        case None:
            return "-"
        case bool():
            return "yes" if value else "no"
        case float():
            return f"{value:.2f}"
    return str(value)
