"""The program's command `status`: what the database holds of the tools' health."""

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from quillet.config import ToolsConfig, read_tools_config
from quillet.next_try import next_try
from quillet.rendering import json_text, status_text
from quillet.repository import database_in
from quillet.stored_health import read_stored_health


def main(arguments: Sequence[str]) -> int:
    """Shows the status; returns its exit status: 2 when the database or a setting is wrong."""
    options = _options(arguments)
    try:
        database = options.database or database_in(options.repository)
        config = read_tools_config(options.config) if options.config else ToolsConfig()
        status = stored_status(database, config)
    except (OSError, ValueError) as error:
        print(f"quillet: {error}", file=sys.stderr)
        return 2
    print(status_text(status) if sys.stdout.isatty() else json_text(status))
    return 0


def stored_status(database: Path, config: ToolsConfig) -> dict[str, Any]:
    """The summary of all tools, the worst first, with when the disabled ones are tried again.

    Errors are those of `read_stored_health`.
    """
    tracker, damaged = read_stored_health(database, config)
    tools: list[dict[str, Any]] = []
    for record in tracker.get_health_summary():
        moment, seconds = next_try(record["disabled_at"], config.disable_cooldown_s)
        tools.append({**record, "tried_again_at": moment, "tried_again_in_s": seconds})
    return {
        "database": str(database),
        "cooldown_s": config.disable_cooldown_s,
        "damaged": damaged,
        "tools": tools,
    }


def _options(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="quillet status",
        description="Shows how the tools fare, from the database alone, also while a daemon runs: "
        "tables on a terminal, else JSON.",
    )
    parser.add_argument("--repository", type=Path, default=Path(), help="the folder that is served")
    parser.add_argument("--database", type=Path, help="its database, if not in the folder itself")
    parser.add_argument("--config", type=Path, help="the daemon's TOML file, for the cooldown")
    return parser.parse_args(arguments)
