"""Reads plain files alone: what lies in a folder may be a link, a pipe or a device."""

import os
import stat
from pathlib import Path


def read_regular_file(path: Path, limit: int) -> tuple[bytes, Path]:
    """A file's content, and where it really is, links followed.

    Opened first and checked then: a file checked by its name could be swapped before it is opened.
    """
    # A path alone is opened: no pipe waits for its other end, no device does anything.
    place = os.open(path, os.O_PATH | os.O_CLOEXEC)
    try:
        status = os.fstat(place)
        opened = f"/proc/self/fd/{place}"
        if not stat.S_ISREG(status.st_mode) or status.st_size > limit:
            raise ValueError(f"{path} is not a file of at most {limit:,} bytes")
        with open(opened, "rb") as file:
            return file.read(limit), Path(os.readlink(opened))
    finally:
        os.close(place)
