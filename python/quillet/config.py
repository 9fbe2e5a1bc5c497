"""The daemon's configuration file, of which only the settings of the tools are kept."""

import sys
import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from quillet.plain_files import read_plain

MAX_BYTES = 100_000


@dataclass(frozen=True)
class ToolsConfig:
    """How many errors in a row disable a tool, and for how long."""

    disable_after_errors: int = 5
    disable_cooldown_s: float = 300.0


_KINDS: dict[str, tuple[Any, str]] = {
    "disable_after_errors": (int, "a whole number"),
    "disable_cooldown_s": (int | float, "a number"),
}


def read_tools_config(path: Path) -> ToolsConfig:
    """The settings in the file's [tools] table; a ValueError says what is wrong with them."""
    try:
        tables = tomllib.loads(read_plain(path, MAX_BYTES)[0].decode("utf-8"))
        table = tables.pop("tools", {})
        if tables:
            raise ValueError(f"{', '.join(tables)} is not a setting, only the table [tools] is")
        if not isinstance(table, dict):
            raise ValueError("tools must be a table")
        return ToolsConfig(**{key: _checked(key, value) for key, value in table.items()})
    except (ValueError, RecursionError) as error:
        raise ValueError(f"{path}: {error}") from error


def _checked(key: str, value: Any) -> Any:
    if key not in _KINDS:
        raise ValueError(f"tools.{key} is not a setting, only {' and '.join(_KINDS)} are")
    kind, description = _KINDS[key]
    if isinstance(value, bool) or not isinstance(value, kind):
        raise ValueError(f"tools.{key} must be {description}")
    if not 0 <= value <= sys.float_info.max:
        raise ValueError(f"tools.{key} must be finite and not negative")
    return type(getattr(ToolsConfig, key))(value)
