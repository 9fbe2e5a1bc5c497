"""The program's command `status`: what the database holds of the tools' health."""

import argparse
import json
import signal
import sys
from typing import Any

from quillet.config import read_tools_config
from quillet.diagnostics import complain
from quillet.display import status_text
from quillet.exit_status import ExitStatus
from quillet.hosting.next_try import tools_with_next_try
from quillet.hosting.stored_health import read_stored_health
from quillet.protocol.results import json_safe
from quillet.repository import database_of, old_history


def main(options: argparse.Namespace) -> int:
    """Shows the status; returns the exit status."""
    # As nothing is written, signals end it at once: amid a long statement, or when nobody reads on.
    for number in (signal.SIGINT, signal.SIGPIPE):
        signal.signal(number, signal.SIG_DFL)
    if not options.database and (old := old_history(options.repository)):
        complain(old)
    try:
        status = json_safe(_stored_status(options))
    except (OSError, ValueError) as error:
        complain(error)
        return ExitStatus.UNREADABLE
    as_text = options.text or (sys.stdout.isatty() and not options.json)
    print(status_text(status) if as_text else json.dumps(status), flush=True)
    if options.check and status["damaged"]:
        return ExitStatus.UNREADABLE
    if options.check and any(tool["disabled"] for tool in status["tools"]):
        return ExitStatus.TOOL_DISABLED
    return ExitStatus.OK


def _stored_status(options: argparse.Namespace) -> dict[str, Any]:
    """The summary of all tools, the worst first, with when the disabled ones are tried again."""
    config = read_tools_config(options.config)
    database = options.database or database_of(options.repository)
    tracker, damaged = read_stored_health(database, config)
    return {
        "database": str(database),
        "cooldown_s": config.disable_cooldown_s,
        "cooldown_assumed": not options.config,
        "damaged": damaged,
        "tools": tools_with_next_try(tracker),
    }
