"""What the program says beside its answers, on standard error."""

import logging
import sys
from contextlib import suppress


def complain(message: object) -> None:
    """Prints a line; nothing where standard error is closed or full, as that ends nothing."""
    if sys.stderr:  # without one, print would take standard output
        with suppress(OSError):
            print(f"quillet: {message}", file=sys.stderr)


def log_to_standard_error() -> None:
    """Shows what the daemon's modules log, with time and level."""
    logging.basicConfig(format="%(asctime)s %(levelname)s %(message)s", level=logging.INFO)
