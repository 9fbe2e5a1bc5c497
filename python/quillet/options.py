"""The program's command line."""

import argparse
from collections.abc import Sequence
from contextlib import suppress
from pathlib import Path

from quillet.exit_status import exit_status_help
from quillet.tool_handlers.health import __version__


def parse_options(arguments: Sequence[str]) -> argparse.Namespace:
    """The options that the arguments give; ends the program for --help and for wrong ones."""
    parser = argparse.ArgumentParser(
        prog="quillet",
        description="Keeps the health of an AI agent's tools, around any MCP server or in a demo.",
        epilog=exit_status_help(),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    commands = parser.add_subparsers(dest="command", required=True)
    words = "serves a folder to an agent, by MCP on standard input and output; a demo server"
    serve = commands.add_parser("serve", help=words)
    guard = commands.add_parser(
        "guard",
        help="starts any MCP server, and keeps the health of its tools",
        usage="%(prog)s --database FILE [OPTION ...] -- COMMAND [ARGUMENT ...]",
    )
    guard.set_defaults(repository=Path())
    words = "the file in which the health is kept; created if need be"
    guard.add_argument("--database", type=Path, required=True, metavar="FILE", help=words)
    words = "how long a call may take, less than the client waits; without it, there is no limit"
    guard.add_argument("--timeout", type=_seconds, metavar="SECONDS", help=words)
    words = "what counts against a tool: no answer and JSON-RPC errors (failures, the default), or "
    words += "answers with isError, too (errors)"
    guard.add_argument(
        "--disable-on", choices=["failures", "errors"], default="failures", help=words
    )
    words = "the command that starts the server"
    guard.add_argument("server", nargs="+", metavar="COMMAND", help=words)
    words = "starts that demo server, and runs scripted calls with it"
    play = commands.add_parser("play", help=words)
    words = "a file with a call on each line; without it, standard input is read"
    play.add_argument("story", type=Path, nargs="?", metavar="SCRIPT", help=words)
    status = commands.add_parser("status", help="shows the health that a database holds")
    words = "have the exit status say whether all is well"
    status.add_argument("--check", action="store_true", help=words)
    form = status.add_mutually_exclusive_group()
    form.add_argument("--text", action="store_true", help="show tables, even in a file or pipe")
    form.add_argument("--json", action="store_true", help="print JSON, even on a terminal")
    for command, folder in ((serve, "to serve"), (play, "to serve"), (status, "that is served")):
        words = f"the folder {folder}; without it, the current one"
        command.add_argument("--repository", type=Path, default=Path(), metavar="DIR", help=words)
        words = "the database; without it, one in the state folder, by the folder's path"
        command.add_argument("--database", type=Path, metavar="FILE", help=words)
    words = "a TOML file whose table [tools] says when a tool is disabled, and for how long"
    for command in (serve, guard, play, status):
        command.add_argument("--config", type=Path, metavar="FILE", help=words)
    return parser.parse_args(arguments)


def _seconds(words: str) -> float:
    with suppress(ValueError):
        seconds = float(words)
        if seconds > 0:
            return seconds
    raise argparse.ArgumentTypeError(f"{words!r} is not a number of seconds above 0")
