"""How the program's commands end, as scripts and service managers see it."""

from enum import IntEnum


class ExitStatus(IntEnum):
    """An exit status; two names of one number say what it means for different commands."""

    OK = 0
    FAILED = 1
    TOOL_DISABLED = 1
    CANNOT_START = 2
    UNREADABLE = 2
    NOT_SAVED = 3


MEANINGS: dict[str, dict[ExitStatus | str, str]] = {
    "serve": {
        ExitStatus.OK: "the input ended, and everything is answered",
        ExitStatus.FAILED: "a stream failed",
        ExitStatus.CANNOT_START: "it could not start",
        ExitStatus.NOT_SAVED: "the tools' health could not be saved",
        "128+n": "signal n ended it",
    },
    "guard": {"other": "the server's own, if it ended by itself; the rest as for serve"},
    "play": {
        ExitStatus.OK: "all calls were made",
        ExitStatus.FAILED: "the script is wrong, or the server ended",
    },
    "status": {
        ExitStatus.OK: "shown; with --check: all is well",
        ExitStatus.TOOL_DISABLED: "with --check: a tool is disabled",
        ExitStatus.UNREADABLE: "the database cannot be read; with --check: or a row of it",
    },
}


def killed_by(number: int) -> int:
    """The exit status of a process that a signal ended, as shells have it."""
    return 128 + number


def exit_status_help() -> str:
    """What the statuses of each command mean, for `--help`."""
    lines = []
    for command, meanings in MEANINGS.items():
        lines.append(f"exit status of {command}:")
        lines += [f"  {status:<7} {meaning}" for status, meaning in meanings.items()]
    return "\n".join(lines)
