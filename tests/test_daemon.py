"""The whole stand-in daemon, and the terms that its parts keep for the module."""

import asyncio
import json
import sqlite3
import subprocess
import sys
import threading

import pytest
from quillet.config import ToolsConfig, read_tools_config
from quillet.daemon.tool_pipeline import HANDLER_THREADS, ToolPipeline
from quillet.repository import Repository
from quillet.tool_handlers import health
from quillet.utils.timing import WINDOW, TimingCollector


@pytest.fixture
def daemon():
    """The stand-in's own registry, in place of the tests'."""


def test_calls_from_a_loop_do_not_wait_for_the_database(tmp_path, monkeypatch):
    calls, files = 200, ("there.txt", "gone.txt")
    (tmp_path / files[0]).write_text("text\n")
    with Repository(tmp_path) as repository:
        tracker = health.ToolHealthTracker(repository, ToolsConfig(10**6))
        with ToolPipeline(repository, tracker) as pipeline:
            other = sqlite3.connect(tmp_path / ".quillet" / "quillet.db", isolation_level=None)
            tracker.record_success("status")
            write, writing = repository.db.executemany, threading.Event()
            monkeypatch.setattr(
                repository.db, "executemany", lambda *args: writing.set() or write(*args)
            )

            async def play():
                other.execute("BEGIN IMMEDIATE")
                flush = asyncio.create_task(asyncio.to_thread(tracker.flush))
                await asyncio.to_thread(writing.wait)
                answers = await asyncio.gather(
                    *(pipeline.call("read_file", {"file": files[n % 2]}) for n in range(calls)),
                    *(pipeline.call("search_text", {"text": "text"}) for n in range(calls)),
                    *(pipeline.call("status", {"action": "perf_stats"}) for n in range(10)),
                )
                assert not flush.done()  # every call was reported while the database was held
                other.execute("ROLLBACK")
                return answers, await flush

            answers, flushed = asyncio.run(play())
        other.close()
        assert flushed >= 1
        tracker.flush()
        assert [answer.outcome for answer in answers[:3]] == ["ok", "error", "ok"]
        health_counts = {name: (s.call_count, s.error_count) for name, s in tracker._state.items()}
        assert health_counts == {
            "status": (11, 0), "read_file": (calls, calls // 2), "search_text": (calls, 0)}  # fmt: skip
        usage = {key: (u.calls, u.timed_calls) for key, u in tracker._usage.items()}
        assert usage == {
            ("read_file", None, "ok", True): (calls // 2, calls // 2),
            ("read_file", None, "error", True): (calls // 2, 0),
            ("search_text", None, "ok", False): (calls, calls),
            ("status", "perf_stats", "ok", False): (10, 10),
        }
        rows = repository.db.fetchall("SELECT tool_name, call_count, error_count FROM tool_health")
        assert {name: tuple(counts) for name, *counts in rows} == health_counts
        again = health.ToolHealthTracker(repository)
        assert {name: (s.call_count, s.error_count) for name, s in again._state.items()} == (
            health_counts)  # fmt: skip
        assert {key: (u.calls, u.timed_calls) for key, u in again._usage.items()} == usage


def play(root, lines, *options):
    run = subprocess.run(
        [sys.executable, "-P", "-m", "quillet", "--repository", root, *options],
        input="\n".join(lines), capture_output=True, text=True,
    )  # fmt: skip
    return run.returncode, [json.loads(line) for line in run.stdout.splitlines()], run.stderr


def test_a_tool_fails_is_disabled_comes_back_and_is_remembered(tmp_path):
    (tmp_path / "config.toml").write_text(
        "[tools]\ndisable_after_errors = 2\ndisable_cooldown_s = 0.2"
    )
    options = ("--config", tmp_path / "config.toml")
    read = '{"tool": "read_file", "arguments": {"path": "%s"}}'
    bad, good = read % "caf\udce9", read % "config.toml"
    lines = ["# a comment", bad.replace("\udce9", "\\udce9")] * 2 + [good, '{"wait_s": 0.25}', good]
    status, answers, errors = play(tmp_path, [*lines, "", "{", "[]", '{"tool": 5}', good], *options)
    assert [answer["outcome"] for answer in answers] == ["error", "error", "disabled", "ok", "ok"]
    assert "caf\udce9" in answers[2]["content"]
    assert (status, errors.count("quillet: line ")) == (1, 3)
    assert "line 9: " in errors and "line 11: " in errors
    _, [answer], _ = play(tmp_path, ['{"tool": "status", "arguments": {"action": "perf_stats"}}'])
    [tool] = answer["content"]["tools"]
    assert (tool["call_count"], tool["error_count"], tool["disabled"]) == (4, 2, False)
    assert [(row["outcome"], row["calls"]) for row in tool["usage"]] == [
        ("error", 2), ("ok", 2), ("disabled", 1)]  # fmt: skip
    assert answer["content"]["threads"]["budget"] > HANDLER_THREADS


@pytest.mark.parametrize(
    ("text", "named"),
    [
        ("[tools]\nx = 1", "tools.x"), ("[tools]\ndisable_after_errors = true", "whole number"),
        ("[tools]\ndisable_after_errors = 1.5", "disable_after_errors"),
        ("[tools]\ndisable_cooldown_s = -1", "negative"), ("tools = 1", "table"), ("[", "toml: Invalid"),
        ("[index]", "index"), ("a = " + "[" * 9999, "recursion"),
        ("[tools]\ndisable_cooldown_s = inf", "finite"), ("[tools]\ndisable_cooldown_s = '1'", "number"),
    ],  # fmt: skip
)
def test_wrong_settings_are_named(tmp_path, text, named):
    path = tmp_path / "config.toml"
    path.write_text(text)
    with pytest.raises(ValueError, match=named):
        read_tools_config(path)
    assert play(tmp_path, [], "--config", path)[0] == 2


def test_a_failed_write_leaves_nothing_behind(tmp_path):
    insert = "INSERT INTO schema_info VALUES (?, ?)"
    with Repository(tmp_path) as repository:
        with pytest.raises(sqlite3.IntegrityError):
            repository.db.executemany(insert, [("a", "1"), ("a", "2")])
        assert repository.db.fetchall("SELECT * FROM schema_info") == []
        repository.db.execute(insert, ("k", "caf\udce9"))
        select = "SELECT value FROM schema_info WHERE key = ?"
        assert repository.db.fetchone(select, ("k",)) == ("caf\\udce9",)


def test_timing_is_bounded_and_by_nearest_rank():
    collector = TimingCollector()
    for n in range(WINDOW + 100):
        collector.record("t", float(n), error=n % 2 == 0)
    [stats] = collector.get_all_stats()
    assert stats == {"name": "t", "count": WINDOW + 100, "errors": (WINDOW + 100) // 2, "min_ms": 100.0,
                     "max_ms": 1099.0, "p95_ms": 1049.0, "avg_ms": 599.5}  # fmt: skip
