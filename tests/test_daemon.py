"""The whole stand-in daemon, and the terms that its parts keep for the module."""

import asyncio
import sqlite3
import subprocess
import sys
import threading

import pytest
from quillet.call_lines import parse_line
from quillet.config import ToolsConfig, read_tools_config
from quillet.daemon.tool_pipeline import ToolPipeline
from quillet.repository import Repository
from quillet.tool_handlers import health


@pytest.fixture
def daemon():
    """The stand-in's own registry, in place of the tests'."""


def test_calls_from_a_loop_do_not_wait_for_the_database(tmp_path, monkeypatch):
    (tmp_path / "there.txt").write_text("text\n")
    with Repository(tmp_path) as repository:
        tracker = health.ToolHealthTracker(repository, ToolsConfig(10**6))
        other = sqlite3.connect(tmp_path / ".quillet" / "quillet.db", isolation_level=None)
        write, writing = repository.db.executemany, threading.Event()
        monkeypatch.setattr(repository.db, "executemany", lambda *a: writing.set() or write(*a))

        async def play(pipeline):
            tracker.record_success("status")
            other.execute("BEGIN IMMEDIATE")
            flush = asyncio.create_task(asyncio.to_thread(tracker.flush))
            await asyncio.to_thread(writing.wait)
            files = ["there.txt", "gone.txt"] * 100
            await asyncio.gather(
                *(pipeline.call("read_file", {"file": file}) for file in files),
                *(pipeline.call("status", {"action": "perf_stats"}) for n in range(10)),
            )
            assert not flush.done()  # every call was reported while the database was held
            other.execute("ROLLBACK")
            await flush

        with ToolPipeline(repository, tracker) as pipeline:
            asyncio.run(play(pipeline))
        other.close()
        tracker.flush()
        for known in (tracker, health.ToolHealthTracker(repository)):
            counts = {name: (s.call_count, s.error_count) for name, s in known._state.items()}
            assert counts == {"status": (11, 0), "read_file": (200, 100)}
            assert {key: (u.calls, u.timed_calls) for key, u in known._usage.items()} == {
                ("read_file", None, "ok", True): (100, 100),
                ("read_file", None, "error", True): (100, 0),
                ("status", "perf_stats", "ok", False): (10, 10),
            }


@pytest.mark.parametrize(
    "line",
    ["{", "[]", "5", '{"tool": 5}', '{"tool": "a", "more": 1}', '{"tool": "a", "arguments": []}',
     '{"wait_s": 5.01}', '{"wait_s": -1}', '{"wait_s": true}', "[" * 9999],
)  # fmt: skip
def test_lines_that_are_no_calls(line):
    with pytest.raises(ValueError, match="neither|not JSON"):
        parse_line(line)
    assert parse_line("# a comment") is parse_line(" \n") is None
    assert parse_line('{"wait_s": 5}') == {"wait_s": 5}
    assert parse_line('{"tool": "a"}') == {"tool": "a", "arguments": {}}


def test_wrong_settings_are_named(tmp_path):
    path = tmp_path / "config.toml"
    for text, named in {
        "[tools]\nx = 1": "tools.x",
        "[tools]\ndisable_after_errors = true": "whole number",
        "[tools]\ndisable_cooldown_s = -1": "negative",
        "[tools]\ndisable_cooldown_s = inf": "finite",
        "tools = 1": "table",
        "[": "toml: Invalid",
        "a = " + "[" * 9999: "recursion",
    }.items():
        path.write_text(text)
        with pytest.raises(ValueError, match=named):
            read_tools_config(path)
    command = [sys.executable, "-P", "-m", "quillet", "--repository", tmp_path, "--config", path]
    assert subprocess.run(command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE).returncode == 2


def test_a_failed_write_leaves_nothing_behind(tmp_path):
    with Repository(tmp_path) as repository:
        with pytest.raises(sqlite3.IntegrityError):
            repository.db.executemany("INSERT INTO schema_info VALUES (?, '')", [("a",), ("a",)])
        assert repository.db.fetchall("SELECT * FROM schema_info") == []
        repository.db.executemany("INSERT INTO schema_info VALUES (?, '')", [("caf\udce9",)])
        repository.db.execute("DELETE FROM schema_info WHERE key = ?", ("caf\udce9",))
        assert repository.db.fetchall("SELECT * FROM schema_info") == []
        assert repository.db.fetchall("PRAGMA synchronous") == [(2,)]  # full: safe from power cuts
        repository.db.execute("INSERT INTO schema_info VALUES ('k', ?)", ("caf\udce9",))
        assert repository.db.fetchone("SELECT value FROM schema_info", ()) == ("caf\\udce9",)
