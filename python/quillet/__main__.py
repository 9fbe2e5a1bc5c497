"""The program: finds the command that its first argument names."""

import os
import signal
import sys
from importlib import import_module

from quillet.diagnostics import complain, finish_log
from quillet.exit_status import ExitStatus, killed_by
from quillet.options import parse_options


def main() -> int:
    """Runs the command; nothing of the others is loaded. Returns the exit status."""
    for stream, name in ((sys.stdin, "input"), (sys.stdout, "output")):
        if not stream:  # the next file that is opened would be taken for it
            complain(f"standard {name} is closed")
            return ExitStatus.CANNOT_START
    if not sys.stderr:
        os.open(os.devnull, os.O_WRONLY)
    options = parse_options(sys.argv[1:])
    status: int = import_module(f"quillet.commands.{options.command}").main(options)
    return status


if __name__ == "__main__":
    try:
        status = main()
    except KeyboardInterrupt:
        status = killed_by(signal.SIGINT)
    except OSError as error:
        complain(error)
        status = ExitStatus.FAILED
    # Threads may still be reading, or running a handler: nothing waits for these.
    finish_log()
    os._exit(status)
