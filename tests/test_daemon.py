"""The whole stand-in daemon, and the terms that its parts keep for the module."""

import asyncio
import json
import sqlite3
import subprocess
import sys
import threading

import pytest
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


def play(root, lines, *options):
    command = [sys.executable, "-P", "-m", "quillet", "--repository", root, *options]
    run = subprocess.run(command, input="\n".join(lines), capture_output=True, text=True)
    return run.returncode, [json.loads(line) for line in run.stdout.splitlines()], run.stderr


def test_a_tool_fails_is_disabled_comes_back_and_is_remembered(tmp_path):
    config = tmp_path / "config.toml"
    config.write_text("[tools]\ndisable_after_errors = 2\ndisable_cooldown_s = 0.2")
    read = '{"tool": "read_file", "arguments": {"path": "%s"}}'
    bad, good = read % "caf\\udce9", read % "config.toml"
    lines = ["# a comment", bad, bad, good, '{"wait_s": 0.25}', good, "", "{", "[]", good]
    status, answers, errors = play(tmp_path, lines, "--config", config)
    assert [answer["outcome"] for answer in answers] == ["error", "error", "disabled", "ok", "ok"]
    assert "caf\udce9" in answers[2]["content"]
    assert (status, errors.count("quillet: line ")) == (1, 2)
    assert "line 8: " in errors and "line 9: " in errors
    _, [answer], _ = play(tmp_path, ['{"tool": "status", "arguments": {"action": "perf_stats"}}'])
    [tool] = answer["content"]["tools"]
    assert (tool["call_count"], tool["error_count"], tool["disabled"]) == (4, 2, False)
    usage = [(row["outcome"], row["calls"]) for row in tool["usage"]]
    assert usage == [("error", 2), ("ok", 2), ("disabled", 1)]


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
    assert play(tmp_path, [], "--config", path)[0] == 2


def test_a_failed_write_leaves_nothing_behind(tmp_path):
    with Repository(tmp_path) as repository:
        with pytest.raises(sqlite3.IntegrityError):
            repository.db.executemany("INSERT INTO schema_info VALUES (?, '')", [("a",), ("a",)])
        assert repository.db.fetchall("SELECT * FROM schema_info") == []
        repository.db.execute("INSERT INTO schema_info VALUES ('k', ?)", ("caf\udce9",))
        assert repository.db.fetchone("SELECT value FROM schema_info", ()) == ("caf\\udce9",)
