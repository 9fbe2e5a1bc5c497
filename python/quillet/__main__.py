"""Plays tool calls from a file or standard input to the daemon, one JSON line each."""

import argparse
import asyncio
import os
import sqlite3
import sys
import time
from collections.abc import Iterable
from contextlib import ExitStack
from pathlib import Path

from quillet import stored_status
from quillet.call_lines import parse_line
from quillet.config import ToolsConfig, read_tools_config
from quillet.daemon.flusher import Flusher
from quillet.daemon.tool_pipeline import ToolPipeline
from quillet.rendering import as_heading, as_json, as_text
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker


def main() -> int:
    """The program; returns its exit status: 1 when a line was no call, 2 when it cannot start."""
    sys.stdout.reconfigure(errors="backslashreplace")
    if sys.argv[1:2] == ["status"]:
        return stored_status.main(sys.argv[2:])
    options = _options()
    with ExitStack() as stack:
        try:
            config = read_tools_config(options.config) if options.config else ToolsConfig()
            # As in file names, bytes that are not UTF-8 come through unharmed.
            source = open(options.calls or 0, encoding="utf-8", errors="surrogateescape")
            lines = stack.enter_context(source)
            repository = stack.enter_context(Repository(options.repository, options.database))
            tracker = ToolHealthTracker(repository, config)
        except (OSError, ValueError, TypeError, OverflowError, sqlite3.Error) as error:
            print(f"quillet: {error}", file=sys.stderr)
            return 2
        stack.enter_context(Flusher(tracker))
        pipeline = stack.enter_context(ToolPipeline(repository, tracker))
        return _play(lines, pipeline, options.text or sys.stdout.isatty())


def _options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="quillet", description=__doc__)
    parser.add_argument("--repository", type=Path, required=True, help="the folder to serve")
    parser.add_argument("--database", type=Path, help="its database, if not in the folder itself")
    parser.add_argument("--config", type=Path, help="a TOML file with a [tools] table")
    parser.add_argument("--text", action="store_true", help="text also where no terminal reads it")
    parser.add_argument("calls", type=Path, nargs="?", help="the calls, if not on standard input")
    return parser.parse_args()


def _play(lines: Iterable[str], pipeline: ToolPipeline, text_wanted: bool) -> int:
    show = as_text if text_wanted else as_json
    status = 0
    with asyncio.Runner() as runner:
        for number, text in enumerate(lines, 1):
            try:
                line = parse_line(text)
            except ValueError as error:
                print(f"quillet: line {number}: {error}", file=sys.stderr)
                status = 1
                continue
            match line:
                case {"wait_s": seconds}:
                    time.sleep(seconds)
                case {"tool": tool, "arguments": arguments}:
                    answer = runner.run(pipeline.call(tool, arguments))
                    print(show(number, tool, answer), flush=True)
                case None if show is as_text:
                    print(as_heading(text), flush=True)
    return status


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
    except BrokenPipeError:
        # Nobody reads on; the interpreter's own last flush must not complain of it either.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(1)
