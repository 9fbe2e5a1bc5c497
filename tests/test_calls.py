"""The stand-in's calls: what agents may ask for, and how each call ends."""

import asyncio
import math
import re
import threading
import time
from types import SimpleNamespace

import pytest
from quillet.daemon.tool_pipeline import ToolPipeline
from quillet.rendering import as_json
from quillet.repository import Repository
from quillet.tool_handlers import files, health
from quillet.utils.process import thread_census

READ, GONE = ("read_file", {"path": "a.txt"}), ("read_file", {"path": "gone.txt"})
SEARCH, EMBED = ("search_text", {"text": "text"}), ("embed_text", {"text": "text"})
HUGE, NESTED = "x" * 10**6, []
for _ in range(100_000):
    NESTED = [NESTED]


@pytest.fixture
def daemon():
    """The stand-in's own registry, in place of the tests', and what its calls need."""
    limits = SimpleNamespace(disable_after_errors=2, disable_cooldown_s=1000.0)
    return SimpleNamespace(limits=limits, begun=threading.Event(), go=threading.Event())


@pytest.fixture
def pipeline(tmp_path, daemon):
    (tmp_path / "root").mkdir()
    (tmp_path / "root" / "a.txt").write_text("text\n")
    with Repository(tmp_path / "root") as repository:
        now = health._sqlite_time(time.time())
        rows = [("count_lines", 2, 2, b"caf\xe9", now, now), ("read_file", 1, 0, None, None, now)]
        repository.db.executemany("INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)", rows)
        daemon.tracker = health.ToolHealthTracker(repository, daemon.limits)
        yield ToolPipeline(repository, daemon.tracker)


def play(pipeline, *calls):
    async def one_by_one():
        return [await pipeline.call(tool, arguments) for tool, arguments in calls]

    return asyncio.run(one_by_one())


@pytest.mark.parametrize(
    ("tool", "arguments", "said"),
    [
        ("read_file", {"path": 5}, "path must be a text"),
        ("read_file", {**READ[1], "first_line": True}, "first_line must be a whole number"),
        ("read_file", {}, "path is missing"),
        ("read_file", {**READ[1], "context": 1}, "no parameter 'context'"),
        ("read_file", {**READ[1], HUGE: 1}, "no parameter 'xxx"),
        ("read_file", {**READ[1], "file": "a.txt"}, "under two names"),
        ("read_file", {**READ[1], "action": NESTED}, r"no actions, not \[\[\["),
        ("status", {"action": None}, "perf_stats, threads, not None"),
        (HUGE, {}, "there is no tool 'xxx"),
    ],
)
def test_a_mistaken_call_is_no_failure_of_the_tool(pipeline, daemon, tool, arguments, said):
    with pipeline:
        *answers, good = play(pipeline, *[(tool, arguments)] * 3, READ)
    assert ({answer.outcome for answer in answers}, good.outcome) == ({"invalid"}, "ok")
    assert re.search(said, answers[0].content) and len(answers[0].content) < 300
    assert daemon.tracker._state["read_file"].error_count == 0


def test_all_files_of_the_repository_are_read_and_no_others(pipeline, daemon, tmp_path):
    daemon.limits.disable_after_errors = 100
    (tmp_path / "b.txt").write_text("text\n")
    folder = tmp_path / "root"
    (folder / "out").symlink_to(tmp_path)
    (folder / ".git").mkdir()
    (folder / ".git" / "b.txt").write_text("text\n")
    outside = ["../b.txt", f"{tmp_path}/b.txt", "out/b.txt", ".git/b.txt", f"../{HUGE}"]
    for _ in range(1500):
        folder /= "A"
        folder.mkdir()
    (folder / "a.txt").write_text("text\n")
    try:
        with pipeline:
            *refused, found = play(pipeline, *(("read_file", {"path": p}) for p in outside), SEARCH)
    finally:  # pytest's own removal gives up at this depth
        (folder / "a.txt").unlink()
        for deep in [folder, *folder.parents][:1500]:
            deep.rmdir()
    assert all(answer.content.startswith("PermissionError: ") for answer in refused)
    assert len(refused[-1].content) == 500
    assert [len(match["path"]) for match in found.content["matches"]] == [5, 3005]


def test_every_stored_value_and_cooldown_can_be_shown(pipeline, daemon):
    daemon.limits.disable_cooldown_s = math.nan
    with pipeline:
        health_answer, disabled = play(
            pipeline, ("status", {"action": "perf_stats"}), ("count_lines", {})
        )
    shown = as_json(1, "status", health_answer)
    assert r"caf\\xe9" in shown and '"cooldown_s": null' in shown
    assert disabled.content.endswith(r"it is not tried again; last error: caf\xe9")


def test_embed_text_ends_without_a_thread_and_works_again(pipeline, monkeypatch):
    def fail_at_the_fourth(thread, start=threading.Thread.start):
        if thread.name == "embedding_3":
            raise RuntimeError("can't start new thread")
        start(thread)

    with pipeline:
        with monkeypatch.context() as patch:
            patch.setattr(threading.Thread, "start", fail_at_the_fourth)
            [failed] = play(pipeline, EMBED)
        assert failed.content == "RuntimeError: can't start new thread"
        assert "embedding" not in thread_census().python_threads
        assert play(pipeline, EMBED)[0].outcome == "ok"


def hold_readers(monkeypatch, daemon, read=files._read_lines):
    held = lambda file: daemon.begun.set() or daemon.go.wait() and read(file)  # noqa: E731
    monkeypatch.setattr(files, "_read_lines", held)


async def begin(pipeline, daemon, *calls):
    """The answers to calls that another outlasts."""
    outlasting = asyncio.create_task(pipeline.call(*SEARCH if not calls else READ))
    await asyncio.to_thread(daemon.begun.wait)
    answers = [await pipeline.call(*call) for call in calls]
    assert not outlasting.done()  # and it is cancelled with the loop
    return answers


def test_a_tools_disabling_and_return_are_told(pipeline, daemon, monkeypatch, caplog):
    caplog.set_level("INFO")
    hold_readers(monkeypatch, daemon)
    when = r"it is tried again at (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) UTC, in 100[01] s"
    with pipeline:
        [disabled] = play(pipeline, ("count_lines", {}))
        assert re.search(when + r"; last error: caf\\xe9$", disabled.content)
        started = time.time()
        answers = asyncio.run(begin(pipeline, daemon, GONE, GONE, GONE))
        assert [answer.outcome for answer in answers] == ["error", "error", "disabled"]
        daemon.go.set()
        daemon.limits.disable_cooldown_s = 0.0
        play(pipeline, *[("count_lines", {})] * 2)
    told = sorted(record.getMessage() for record in caplog.records)
    assert told.pop(0) == "count_lines is enabled again: its cooldown has passed"
    assert told.pop(0) == "read_file is enabled again: a call of it succeeded"
    [line] = told
    moment = re.fullmatch(f"read_file kept failing and is disabled; {when}", line)[1]
    assert health._epoch(moment) >= started + 1000  # never too early


def test_a_cancelled_call_is_recorded_when_its_handler_ends(pipeline, daemon, monkeypatch):
    hold_readers(monkeypatch, daemon)
    with pipeline:
        asyncio.run(begin(pipeline, daemon))
        assert daemon.tracker._usage == {}
        daemon.go.set()
    assert daemon.tracker._state["search_text"].call_count == 1
    assert [usage.timed_calls for usage in daemon.tracker._usage.values()] == [1]
