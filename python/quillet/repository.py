"""A folder that the demo server serves, and where the health of its tools is kept."""

import hashlib
import os
import re
from pathlib import Path
from typing import Self

from quillet.database import Database


class Repository:
    """A folder of files, and a database, which lies elsewhere: nothing is written to the folder."""

    def __init__(self, root: Path, database: Path) -> None:
        self.root = root.resolve()
        if not self.root.is_dir():
            raise NotADirectoryError(f"{root} is not a folder")
        self.db = Database(database)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.db.close()


def database_of(root: Path) -> Path:
    """Where a folder's database lies: in the user's state folder, by the folder's real path."""
    root = root.resolve()
    name = re.sub(r"[^\w.-]", "_", root.name, flags=re.ASCII)[:50]
    digest = hashlib.sha256(os.fsencode(root)).hexdigest()
    return state_folder() / f"{name}-{digest[:16]}.db"


def state_folder() -> Path:
    """The program's folder for what it keeps from run to run."""
    home = Path(os.environ.get("XDG_STATE_HOME", ""))
    return (home if home.is_absolute() else Path.home() / ".local/state") / "quillet"


def old_history(root: Path) -> str | None:
    """A line on the history that release 1.2.0 left in the folder, if there is one."""
    old = root.resolve() / ".quillet/quillet.db"
    if not old.is_file():
        return None
    return f"{old} is not used any more: move it to {database_of(root)}, or remove it"
