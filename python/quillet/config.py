"""The daemon's configuration file, of which only the settings of the tools are kept."""

import sys
import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from quillet.regular_files import read_regular_file


@dataclass(frozen=True)
class ToolsConfig:
    """How many errors in a row disable a tool, and for how long."""

    disable_after_errors: int = 5
    disable_cooldown_s: float = 300.0


def read_tools_config(path: Path | None) -> ToolsConfig:
    """The settings in a file's [tools] table, if there is one; a ValueError says what is wrong."""
    if not path:
        return ToolsConfig()
    data, _ = read_regular_file(path, 100_000)
    try:
        tables = tomllib.loads(data.decode())
        table = tables.pop("tools", {})
        if tables or not isinstance(table, dict):
            raise ValueError("the table [tools] is all that there is to set")
        return ToolsConfig(**{name: _checked(name, value) for name, value in table.items()})
    except (ValueError, RecursionError) as error:
        raise ValueError(f"{path}: {error}") from error


def _checked(name: str, value: Any) -> Any:
    kind = ToolsConfig.__annotations__.get(name)
    if kind is None:
        names = " and ".join(ToolsConfig.__annotations__)
        raise ValueError(f"tools.{name} is not a setting, only {names} are")
    if type(value) is not kind and type(value) is not int:  # a bool is no number
        raise ValueError(f"tools.{name} must be a {'whole ' if kind is int else ''}number")
    if not 0 <= value <= sys.float_info.max:
        raise ValueError(f"tools.{name} must be finite and not negative")
    return kind(value)
