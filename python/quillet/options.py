"""The program's command line."""

import argparse
from collections.abc import Sequence
from pathlib import Path

from quillet.repository import DATABASE
from quillet.tool_handlers.health import __version__

EXIT_STATUSES = """\
exit status of serve:   0 the input ended and all is answered, 1 a stream failed, 2 it could not
                        start, 3 the tools' health could not be saved, 128+n signal n ended it
exit status of guard:   the same, or its server's if that ended by itself
exit status of status:  2 the database cannot be read; with --check also when a row is damaged,
                        else 1 a tool is disabled, 0 all is well
"""


def parse_options(arguments: Sequence[str]) -> argparse.Namespace:
    """The options that the arguments give; ends the program for --help and for wrong ones."""
    parser = argparse.ArgumentParser(
        prog="quillet",
        description="Serves a repository's tools to an agent.",
        epilog=EXIT_STATUSES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    commands = parser.add_subparsers(dest="command", required=True)
    serve = commands.add_parser("serve", help="a daemon that speaks MCP on its standard streams")
    guard = commands.add_parser(
        "guard",
        help="keeps the tools' health of any MCP server that it starts",
        usage="%(prog)s --database FILE [OPTION ...] -- COMMAND [ARGUMENT ...]",
    )
    guard.set_defaults(repository=Path())
    words = "where the health is kept"
    guard.add_argument("--database", type=Path, required=True, help=words)
    guard.add_argument("--timeout", type=_span, metavar="SECONDS", help="how long a call may take")
    words = "what counts against a tool: no answer and JSON-RPC errors (failures), or isError, too"
    guard.add_argument(
        "--disable-on", choices=["failures", "errors"], default="failures", help=words
    )
    guard.add_argument("server", nargs="+", metavar="COMMAND", help="what starts the server")
    play = commands.add_parser("play", help="an agent that plays a story with such a daemon")
    play.add_argument("story", type=Path, nargs="?", help="a file, instead of standard input")
    status = commands.add_parser("status", help="what the database holds of the tools' health")
    status.add_argument("--check", action="store_true", help="tell by the exit status how all is")
    form = status.add_mutually_exclusive_group()
    form.add_argument("--text", action="store_true", help="tables, also in a file or pipe")
    form.add_argument("--json", action="store_true", help="JSON also on a terminal")
    for command in (serve, play, status):
        words = f"its database, if not {DATABASE}"
        command.add_argument("--repository", type=Path, default=Path(), help="the folder to serve")
        command.add_argument("--database", type=Path, help=words)
    for command in (serve, guard, play, status):
        command.add_argument("--config", type=Path, help="a TOML file with a [tools] table")
    return parser.parse_args(arguments)


def _span(words: str) -> float:
    seconds = float(words)
    if not seconds > 0:
        raise argparse.ArgumentTypeError(f"no span of time: {words}")
    return seconds
