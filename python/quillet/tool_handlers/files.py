"""The tools that read the repository's files; they stand in for those that ask its index."""

import os
from collections import Counter
from collections.abc import Iterator
from itertools import islice
from pathlib import Path
from typing import Annotated, Any

from quillet.regular_files import read_regular_file
from quillet.tool_handlers.context import CallerError, ToolContext

SKIPPED_FOLDERS = {".git"}
MAX_FILE_BYTES = 1_000_000
MAX_ROWS = 100
MAX_LINE_CHARS = 200
LANGUAGES = {".cpp": "C++", ".hpp": "C++", ".py": "Python", ".md": "Markdown", ".toml": "TOML"}
Place = Annotated[str, "a file or folder, from the repository's root"]


def search_text(
    context: ToolContext, text: Annotated[str, "what to find"], path: Place = "."
) -> dict[str, Any]:
    """Finds the lines that hold a text, in one file or all files below a folder."""
    matches = (
        {"path": str(file), "line": number, "text": line.strip()[:MAX_LINE_CHARS]}
        for file, lines in _text_files(context.root, path)
        for number, line in enumerate(lines, 1)
        if text in line
    )
    found = list(islice(matches, MAX_ROWS + 1))
    return {"matches": found[:MAX_ROWS], "more": len(found) > MAX_ROWS}


def read_file(
    context: ToolContext,
    path: Annotated[str, "the file, from the repository's root"],
    first_line: Annotated[int, "where to start; the first is 1"] = 1,
) -> dict[str, Any]:
    """Reads a text file's lines, at most 100 from a given one on."""
    file = _inside(context.root, path)
    try:
        lines = _read_lines(context.root, file)
    except ValueError as error:
        words = f"{path} is not a text file of at most {MAX_FILE_BYTES:,} bytes"
        raise CallerError(words) from error
    skipped = max(first_line, 1) - 1
    shown = [line[:MAX_LINE_CHARS] for line in lines[skipped : skipped + MAX_ROWS]]
    return {"path": path, "first_line": skipped + 1, "lines": shown, "lines_in_file": len(lines)}


def count_lines(context: ToolContext, path: Place = ".") -> dict[str, int]:
    """Counts the lines in each language, of one file or all files below a folder."""
    counts: Counter[str] = Counter()
    for file, lines in _text_files(context.root, path):
        counts[LANGUAGES.get(file.suffix, "other")] += len(lines)
    return dict(counts.most_common())


def _text_files(root: Path, path: str) -> Iterator[tuple[Path, list[str]]]:
    """The files, named from the root, with their lines; those that cannot be read are left out."""
    for file in _files(_inside(root, path)):
        try:
            yield file.relative_to(root), _read_lines(root, file)
        except (CallerError, OSError, ValueError):
            continue


def _files(start: Path) -> Iterator[Path]:
    """The files at or below a path, a folder's own ones first; no links are followed."""
    waiting = [start]
    while waiting:
        path = waiting.pop()
        if os.path.isfile(path):  # Path.is_file raises for a path that cannot be looked up
            yield path
        else:
            waiting += _entries(path)


def _entries(folder: Path) -> list[Path]:
    """What is in a folder, from the last to the first; nothing when it cannot be read."""
    try:
        with os.scandir(folder) as entries:
            kept = [e for e in entries if not e.is_symlink() and e.name not in SKIPPED_FOLDERS]
        kept.sort(key=lambda entry: (entry.is_dir(), entry.name), reverse=True)
    except OSError:
        return []
    return [Path(entry.path) for entry in kept]


def _inside(root: Path, path: str) -> Path:
    """The file or folder that a call names, links followed."""
    try:
        found = (root / path).resolve()
    except (RuntimeError, ValueError) as error:  # a loop of links, or a text that no path can be
        raise CallerError(f"{path} is not a path: {error}") from error
    _refuse_outside(root, found, path)
    if not os.path.exists(found):  # Path.exists raises for a name that is too long
        raise CallerError(f"there is no {path} in the repository")
    return found


def _refuse_outside(root: Path, found: Path, path: object) -> None:
    if not found.is_relative_to(root) or SKIPPED_FOLDERS & set(found.relative_to(root).parts):
        raise CallerError(f"{path} is not among the repository's files")


def _read_lines(root: Path, file: Path) -> list[str]:
    data, place = read_regular_file(file, MAX_FILE_BYTES)
    _refuse_outside(root, place, file.name)
    if b"\0" in data:
        raise ValueError(f"{file.name} is not a text file")
    return [line.decode("utf-8", "replace") for line in data.splitlines()]
