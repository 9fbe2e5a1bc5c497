"""The program's command line."""

import argparse
import inspect
from collections.abc import Sequence
from pathlib import Path

from quillet.call_lines import CALL_FORM, MAX_LINE_CHARS, WAIT_FORM
from quillet.repository import DATABASE
from quillet.tool_handlers.health import __version__
from quillet.tool_registry import TOOLS
from quillet.tool_schemas import Handler

LINES = f"""\
lines, each of at most {MAX_LINE_CHARS:,} characters:
  {CALL_FORM}
  {WAIT_FORM}, a pause
  # a comment, or nothing
"""
EXIT_STATUSES = """\
exit status:
  0      every line was played
  1      a line was none of these, or an answer could not be printed
  2      the daemon could not start
  3      the tools' health could not be saved at the end
  128+n  signal n ended it: 130 for Ctrl-C
"""


def parse_options(arguments: Sequence[str]) -> argparse.Namespace:
    """The options that the arguments give; ends the program for --help and for wrong ones."""
    parser = argparse.ArgumentParser(
        prog="quillet",
        description="Plays tool calls from a file or standard input to the daemon, a line each.\n"
        "The command `status` shows what the database holds of the tools' health.",
        epilog="\n".join([LINES, _tools(), EXIT_STATUSES]),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    parser.add_argument("--repository", type=Path, required=True, help="the folder to serve")
    parser.add_argument(
        "--database", type=Path, help=f"its database, instead of {DATABASE} in that folder"
    )
    parser.add_argument("--config", type=Path, help="a TOML file with a [tools] table")
    parser.add_argument("--text", action="store_true", help="text also where no terminal reads it")
    parser.add_argument("calls", type=Path, nargs="?", help="the calls, if not on standard input")
    return parser.parse_args(arguments)


def _tools() -> str:
    forms = [
        f"  {tool}({_parameters(action, handler)})"
        for tool, spec in TOOLS.items()
        for action, handler in spec.handlers.items()
    ]
    return "\n".join(["tools, with their arguments:", *forms, ""])


def _parameters(action: str | None, handler: Handler) -> str:
    """The action and what the handler takes after the context."""
    _, *parameters = inspect.signature(handler).parameters.values()
    return ", ".join(([f"action={action!r}"] if action else []) + [str(p) for p in parameters])
