"""What the daemon's parts keep: what is told of disabled tools, what is saved, what is refused."""

import io
import re
import sqlite3
import sys
import threading
import time
from contextlib import closing
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

import pytest
from quillet import diagnostics
from quillet.config import ToolsConfig, read_tools_config
from quillet.hosting import flusher
from quillet.hosting.gate import ToolGate
from quillet.database import Database
from quillet.repository import database_of
from quillet.tool_handlers import embedding, files, health
from quillet.tool_handlers.context import CallerError
from quillet.utils.process import thread_census


def test_disabling_and_return_are_told_once(repository, caplog):
    caplog.set_level("INFO")
    tracker, started = health.ToolHealthTracker(repository, ToolsConfig(1, 999)), time.time()
    tracker.record_error("count_lines", "e")
    watched = mock.Mock(wraps=tracker, cooldown_s=tracker.cooldown_s)
    told = ToolGate(watched)
    for tool in ["read_file"] * 2:
        told.failed(tool, "e")
    assert told.refusal("read_file") and watched.get_health_summary.call_count == 1
    for tool in ("count_lines", "count_lines", "status"):
        told.succeeded(tool)
    disabling, enabling = caplog.messages
    when = r"it is tried again at (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) UTC, in (999|1000) s"
    answer = re.fullmatch(f"read_file kept failing and is disabled; {when}", disabling)
    assert health._epoch(answer[1]) >= started + 999  # never too early
    assert enabling == "count_lines is enabled again: a call of it succeeded"


def test_a_terminal_gets_whole_words(monkeypatch):
    terminal = io.StringIO()
    terminal.isatty = lambda: True
    monkeypatch.setattr(sys, "stderr", terminal)
    monkeypatch.setenv("COLUMNS", "24")
    diagnostics.complain("a line that is too long\nand one on 2026-11-23")
    diagnostics.finish_log()
    assert terminal.getvalue() == "quillet: a line that\n  is too long\n  and one on 2026-11-23\n"


def test_a_failed_flush_is_told_and_tried_again(repository, caplog, monkeypatch):
    monkeypatch.setattr(flusher, "PERIOD_S", 0.001)
    repository.db.failures["executemany"] = sqlite3.OperationalError("the disk is full")
    tracker = health.ToolHealthTracker(repository, ToolsConfig())
    tracker.record_success("status")
    with flusher.Flusher(tracker) as periodic:
        while not caplog.messages:
            time.sleep(0.001)
        assert not periodic.saved and "the disk is full" in caplog.text
        failed_at = periodic.saved_at
        repository.db.failures.clear()
        while tracker.has_unsaved_changes:
            time.sleep(0.001)
        for _ in range(2):
            since = periodic.saved_at
            while periodic.saved_at == since:  # also while nothing changes
                time.sleep(0.001)
    assert periodic.saved and failed_at < periodic.saved_at <= time.time()


def test_a_last_flush_that_takes_too_long_is_told(monkeypatch, caplog):
    monkeypatch.setattr(flusher, "LAST_FLUSH_S", 0.01)
    over = threading.Event()
    with flusher.Flusher(SimpleNamespace(has_unsaved_changes=True, flush=over.wait)) as last:
        pass
    assert not last.saved and "within 0.01 s" in caplog.text and over.set() is None


def test_a_failed_write_leaves_nothing_behind(repository):
    db = repository.spied
    with pytest.raises(sqlite3.IntegrityError):
        db.executemany("INSERT INTO schema_info VALUES (?, '')", [("a",), ("a",)])
    assert db.fetchall("SELECT * FROM schema_info") == []
    assert db.fetchall("PRAGMA synchronous") == [(2,)]  # full: safe from power cuts
    assert db.fetchall("PRAGMA journal_mode") == [("wal",)]  # readers and writer do not wait
    db.execute("INSERT INTO schema_info VALUES ('k', ?)", ["caf\udce9"])
    db.executemany("UPDATE schema_info SET key = ?", [["\udce9"]])
    assert db.fetchone("SELECT * FROM schema_info", ()) == ("\\udce9", "caf\\udce9")


def test_threads_that_cannot_be_started_leave_none_behind(monkeypatch):
    def fail_at_the_fourth(thread, start=threading.Thread.start):
        if thread.name == "embedding_3":
            raise RuntimeError("can't start new thread")
        start(thread)

    monkeypatch.setenv("QUILLET_EMBED_THREADS", "99")
    with monkeypatch.context() as patch, pytest.raises(RuntimeError, match="can't start"):
        patch.setattr(threading.Thread, "start", fail_at_the_fourth)
        embedding.embed_text(None, "text")
    assert "embedding" not in thread_census().python_threads
    assert len(embedding.embed_text(None, "text")["vector"]) == 8
    assert (now := thread_census()).python_threads["embedding"] == 64 < now.python_total
    del embedding._kept.team


@pytest.mark.parametrize(
    ("text", "named"),
    [("[tools]\nx = 1", "tools.x"), ("[tools]\ndisable_after_errors = true", "a whole number"),
     ("[tools]\ndisable_cooldown_s = '1'", "a number"), ("tools = 1", "the table"),
     ("[tools]\ndisable_cooldown_s = -1", "not negative"), ("[more]", "the table"),
     ("[tools]\ndisable_cooldown_s = inf", "finite"), ("[", "Invalid"), ("#" * 10**6, "100,000"),
     ("a = " + "[" * 9999, "recursion")],
)  # fmt: skip
def test_wrong_settings_are_named(tmp_path, text, named):
    path = tmp_path / "config.toml"
    path.write_text(text)
    with pytest.raises(ValueError, match=named):
        read_tools_config(path)
    path.write_text("[tools]\ndisable_cooldown_s = 300")
    assert read_tools_config(path) == ToolsConfig(5, 300.0)


@pytest.fixture
def root(tmp_path):
    """A served folder, of which somebody else decides what lies in it."""
    (tmp_path / "root").mkdir()
    (tmp_path / "file").write_text("text\n")
    return tmp_path / "root"


def test_a_start_waits_for_a_daemon_that_is_just_ending(tmp_path):
    threading.Timer(0.2, Database(tmp_path / "db").close).start()
    with closing(Database(tmp_path / "db")) as db:
        assert db.notes == {}


@pytest.mark.parametrize(
    ("variable", "home"),
    [("/state", "/state"), ("state", "/me/.local/state"), ("", "/me/.local/state")],
)
def test_a_folders_history_lies_in_the_state_folder(tmp_path, monkeypatch, variable, home):
    monkeypatch.setenv("XDG_STATE_HOME", variable)
    monkeypatch.setenv("HOME", "/me")
    served = tmp_path / "caf\xe9 1"
    served.mkdir()
    (tmp_path / "link").symlink_to(served)
    place = database_of(served)
    assert re.fullmatch(f"{home}/quillet/caf__1-[0-9a-f]{{16}}.db", str(place))
    assert database_of(tmp_path / "link") == place != database_of(tmp_path / "x" / served.name)
    assert len(database_of(tmp_path / ("x" * 255)).name) < 80 and database_of(Path("/")).name


def test_only_what_is_served_is_read(root, monkeypatch):
    here, refusal = SimpleNamespace(root=root), "is not among the repository's files"
    (root / "out").symlink_to(root.parent)
    (root / "a").write_text("text\n" * 101)
    found = files.search_text(here, "text")
    assert [match["path"] for match in found["matches"]] == ["a"] * 100 and found["more"]
    for path in ("../file", f"{root.parent}/file", "out/file", "../" + "x" * 10**5):
        with pytest.raises(CallerError, match=refusal):
            files.read_file(here, path)
    # A file may be swapped for a link once its name was found to be good.
    monkeypatch.setattr(files, "_inside", lambda root, path: root / path)
    with pytest.raises(CallerError, match=refusal):
        files.read_file(here, "out/file")
