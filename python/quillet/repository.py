"""A repository that the daemon serves."""

from pathlib import Path
from typing import Self

from quillet.database import Database

OWN_FOLDER = ".quillet"
DATABASE = f"{OWN_FOLDER}/quillet.db"


class Repository:
    """A folder of files with its database, which lies in the folder unless it is put elsewhere."""

    def __init__(self, root: Path, database: Path | None = None) -> None:
        self.root = root.resolve()
        if not self.root.is_dir():
            raise NotADirectoryError(f"{root} is not a folder")
        path = database or database_in(self.root)
        path.parent.mkdir(parents=True, exist_ok=True)
        self.db = Database(path)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.db.close()


def database_in(root: Path) -> Path:
    """A served folder's own database; an OSError when the way there leads elsewhere."""
    path = root / DATABASE
    if path.parent.is_symlink():
        raise NotADirectoryError(f"{path.parent} is a link")
    return path
