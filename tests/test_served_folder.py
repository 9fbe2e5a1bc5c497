"""A served folder is somebody else's: whatever lies in it leads nowhere and runs no code."""

import os
import sqlite3
from contextlib import closing
from types import SimpleNamespace

import pytest
from quillet.config import ToolsConfig, read_tools_config
from quillet.repository import Repository, database_in
from quillet.stored_health import read_stored_health
from quillet.tool_handlers import files

SUPER_JOURNAL = b"%s\0\0\0\1\0\0\0\0\0\0\0\x0c\xd9\xd5\x05\xf9\x20\xa1\x63\xd7"


@pytest.fixture
def root(tmp_path):
    (tmp_path / "root" / ".quillet").mkdir(parents=True)
    (tmp_path / "elsewhere").mkdir()
    (tmp_path / "elsewhere" / "file").write_text("kept\n")
    return tmp_path / "root"


def refused(root, error, words):
    """For the daemon, for `status`, and with what is elsewhere as it was."""
    with pytest.raises(error, match=words):
        Repository(root)
    with pytest.raises((OSError, ValueError), match=words):
        read_stored_health(database_in(root), ToolsConfig())
    [file] = (root.parent / "elsewhere").iterdir()
    assert file.read_text() == "kept\n"


@pytest.mark.parametrize("name", ["quillet.db", *(f"quillet.db{e}" for e in ("-wal", "-shm"))])
@pytest.mark.parametrize("target", ["file", "new"])
def test_no_link_is_followed(root, name, target):
    (root / ".quillet" / name).symlink_to(root.parent / "elsewhere" / target)
    refused(root, OSError, f"{name} is not a plain file")


def test_no_folder_lock_or_journal_leads_elsewhere(root):
    own, elsewhere = root / ".quillet", root.parent / "elsewhere"
    (own / "quillet.db.lock").symlink_to(elsewhere / "file")
    refused(root, OSError, "lock is not a plain file")
    (own / "quillet.db.lock").unlink()
    os.mkfifo(own / "quillet.db.lock")
    refused(root, OSError, "lock is not a plain file")
    (own / "quillet.db.lock").unlink()
    named = os.fsencode(elsewhere / "file")
    (own / "quillet.db-journal").write_bytes(b"\0" * 600 + SUPER_JOURNAL % named)
    (own / "quillet.db").write_bytes(b"")
    refused(root, OSError, "journal is not of a daemon's making")
    for file in own.iterdir():
        file.unlink()
    own.rmdir()
    own.symlink_to(elsewhere)
    refused(root, OSError, ".quillet is a link")


ENDLESS = "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT x FROM c"


@pytest.mark.parametrize(
    "code",
    [
        f"CREATE VIEW tool_health AS {ENDLESS}",
        "CREATE TABLE t (a); CREATE TRIGGER u AFTER INSERT ON t BEGIN DELETE FROM t; END",
        "CREATE VIRTUAL TABLE t USING fts5(a)",
        "CREATE TABLE tool_health (a, tool_name AS (hex(zeroblob(500000000))))",
        "CREATE TABLE t (a); CREATE INDEX u ON t (hex(zeroblob(500000000)))",
    ],
)
def test_no_code_of_the_database_runs(root, code):
    with closing(sqlite3.connect(root / ".quillet" / "quillet.db")) as other:
        other.executescript(code)
    refused(root, (OSError, sqlite3.DatabaseError), "only plain tables are used")


def test_a_file_that_is_swapped_for_a_link_is_not_read(root, monkeypatch):
    (root / "out").symlink_to(root.parent / "elsewhere" / "file")
    monkeypatch.setattr(files, "_inside", lambda root, path: root / path)
    with pytest.raises(PermissionError, match="not among the repository's files"):
        files.read_file(SimpleNamespace(root=root), "out")


@pytest.mark.parametrize("kind", ["device", "pipe", "large"])
def test_settings_are_read_from_a_plain_file(root, kind):
    path = root / "config.toml"
    if kind == "pipe":
        os.mkfifo(path)
    else:
        path.write_bytes(b"#" * 200_000)
    with pytest.raises(ValueError, match="is not a file of at most 100,000 bytes"):
        read_tools_config("/dev/zero" if kind == "device" else path)
