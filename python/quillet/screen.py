"""Texts and tables for a person's terminal, as wide as it is and coloured where it can be."""

from collections.abc import Iterable, Mapping, Sequence
from typing import Any

from rich.console import Console, RenderableType
from rich.table import Table
from rich.text import Text


def on_screen(parts: Iterable[RenderableType]) -> str:
    """The parts below each other, as standard output's terminal takes them."""
    console = Console(highlight=False)
    with console.capture() as capture:
        for part in parts:
            console.print(part)
    return "\n".join(line.rstrip() for line in capture.get().splitlines())


def text(words: str, style: str = "") -> Text:
    """A text with the characters escaped that would upset a terminal."""
    return Text("".join(c if c.isprintable() else repr(c)[1:-1] for c in words), style)


def table(
    columns: Mapping[str, str], records: Sequence[Mapping[str, Any]], styles: Mapping[str, str]
) -> list[RenderableType]:
    """The records' values under the columns' headings, numbers to the right.

    An empty line comes first. `columns` maps headings to the records' keys; a column without any
    value is left out, and so is a table without records. A cell whose text is in `styles` is shown
    so.
    """
    shown = [
        heading
        for heading, key in columns.items()
        if any(record[key] is not None for record in records)
    ]
    if not shown:
        return []
    grid = Table(box=None, pad_edge=False, header_style="bold")
    for heading in shown:
        numeric = any(type(record[columns[heading]]) in (int, float) for record in records)
        grid.add_column(heading.upper(), justify="right" if numeric else "left", overflow="fold")
    for record in records:
        cells = [_cell(record[columns[heading]]) for heading in shown]
        grid.add_row(*(text(cell, styles.get(cell, "")) for cell in cells))
    return ["", grid]


def _cell(value: Any) -> str:
    match value:
        case None:
            return "-"
        case bool():
            return "yes" if value else "no"
        case float():
            return f"{value:.2f}"
        case bytes():
            return value.decode("utf-8", "backslashreplace")
    return str(value)
