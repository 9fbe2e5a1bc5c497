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
def daemon(tmp_path):
    """The stand-in's own registry, in place of the tests', and what its calls need."""
    limits = SimpleNamespace(disable_after_errors=2, disable_cooldown_s=1000.0)
    daemon = SimpleNamespace(limits=limits, begun=threading.Event(), go=threading.Event())
    (tmp_path / "root").mkdir()
    (tmp_path / "root" / "a.txt").write_text("text\n")
    with Repository(tmp_path / "root") as repository:
        row = ("count_lines", 2, 2, b"caf\xe9", *[health._sqlite_time(time.time())] * 2)
        repository.db.execute("INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)", row)
        daemon.tracker = health.ToolHealthTracker(repository, limits)
        with ToolPipeline(repository, daemon.tracker) as daemon.pipeline:
            yield daemon
            daemon.go.set()


async def play(daemon, *calls):
    return [await daemon.pipeline.call(*call) for call in calls]


@pytest.mark.parametrize(
    ("tool", "arguments", "said"),
    [
        ("read_file", {"path": 5}, "path must be a text"),
        ("read_file", {**READ[1], "first_line": True}, "first_line must be a whole number"),
        ("read_file", {}, "path is missing"),
        ("read_file", {**READ[1], HUGE: 1}, "no parameter 'xxx"),
        ("read_file", {**READ[1], "file": "a.txt"}, "under two names"),
        ("read_file", {**READ[1], "action": NESTED}, r"no actions, not \[\[\["),
        ("status", {"action": None}, "perf_stats, threads, not None"),
        (HUGE, {}, "there is no tool 'xxx"),
    ],
)
def test_a_mistaken_call_is_no_failure_of_the_tool(daemon, tool, arguments, said):
    *answers, good = asyncio.run(play(daemon, *[(tool, arguments)] * 3, READ))
    assert ({answer.outcome for answer in answers}, good.outcome) == ({"invalid"}, "ok")
    assert re.search(said, answers[0].content) and len(answers[0].content) < 300


def test_no_file_outside_the_repository_is_read(daemon, tmp_path):
    daemon.limits.disable_after_errors = 100
    folder = tmp_path / "root"
    (folder / "out").symlink_to(tmp_path)
    (folder / ".git").mkdir()
    for place in (tmp_path, folder / ".git"):
        (place / "b.txt").write_text("text\n")
    outside = ["../b.txt", f"{tmp_path}/b.txt", "out/b.txt", ".git/b.txt", f"../{HUGE}"]
    calls = [("read_file", {"path": path}) for path in outside]
    *refused, found = asyncio.run(play(daemon, *calls, SEARCH))
    assert all(answer.content.startswith("PermissionError: ") for answer in refused)
    assert len(refused[-1].content) == 500
    assert [match["path"] for match in found.content["matches"]] == ["a.txt"]


def test_what_is_asked_for_is_answered(daemon, tmp_path):
    (tmp_path / "root" / "b.txt").write_text("text\n" * 101)
    (tmp_path / "root" / "c.txt").write_text("text\n" * 100)
    calls = [("search_text", {"query": "text", "path": name}) for name in ("b.txt", "c.txt")]
    calls += [("read_file", {"path": "b.txt", "first_line": line}) for line in (0, 101)]
    *answers, _ = asyncio.run(play(daemon, *calls, ("status", {"action": "performance"})))
    more, all_of_it, start, end = (answer.content for answer in answers)
    assert [len(found["matches"]) for found in (more, all_of_it)] == [100, 100]
    assert (more["more"], all_of_it["more"]) == (True, False)
    assert (start["first_line"], len(start["lines"]), end["lines"]) == (1, 100, ["text"])
    synonyms = [(key[0], key[1], key[3]) for key in daemon.tracker._usage]
    expected = (
        ("search_text", None, True),
        ("read_file", None, False),
        ("status", "perf_stats", True),
    )
    assert synonyms == list(expected)


def test_embed_text_ends_without_a_thread_and_works_again(daemon, monkeypatch):
    def fail_at_the_fourth(thread, start=threading.Thread.start):
        if thread.name == "embedding_3":
            raise RuntimeError("can't start new thread")
        start(thread)

    with monkeypatch.context() as patch:
        patch.setattr(threading.Thread, "start", fail_at_the_fourth)
        [failed] = asyncio.run(play(daemon, EMBED))
    assert failed.content == "RuntimeError: can't start new thread"
    assert "embedding" not in thread_census().python_threads
    assert asyncio.run(play(daemon, EMBED))[0].outcome == "ok"


def test_disabling_and_return_are_told_and_a_cancelled_call_counts(daemon, monkeypatch, caplog):
    def held(root, file, read=files._read_lines):
        daemon.begun.set()
        return daemon.go.wait() and read(root, file)

    async def fail_beside_a_call_that_is_cancelled_with_the_loop():
        outlasting = asyncio.create_task(play(daemon, READ))
        await asyncio.to_thread(daemon.begun.wait)
        answers = await play(daemon, GONE, GONE, GONE, ("count_lines", {}))
        assert not outlasting.done()
        return answers

    caplog.set_level("INFO")
    monkeypatch.setattr(files, "_read_lines", held)
    started = time.time()
    answers = asyncio.run(fail_beside_a_call_that_is_cancelled_with_the_loop())
    assert [answer.outcome for answer in answers] == ["error", "error", "disabled", "disabled"]
    when = r"it is tried again at (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) UTC, in 100[01] s"
    assert re.search(when + r"; last error: caf\\xe9$", answers[3].content)
    daemon.limits.disable_cooldown_s = math.nan
    report, disabled = asyncio.run(
        play(daemon, ("status", {"action": "perf_stats"}), ("count_lines", {}))
    )
    shown = as_json(1, "status", report)
    assert r"caf\\xe9" in shown and '"cooldown_s": null' in shown
    assert disabled.content.endswith(r"it is not tried again; last error: caf\xe9")
    assert daemon.tracker._state["read_file"].call_count == 2
    daemon.limits.disable_cooldown_s = 0.0
    daemon.go.set()
    asyncio.run(play(daemon, *[("count_lines", {})] * 2))
    while daemon.tracker._state["read_file"].call_count == 2:
        time.sleep(0.001)
    disabling, *enablings = (record.getMessage() for record in caplog.records)
    assert sorted(enablings) == [
        "count_lines is enabled again: its cooldown has passed",
        "read_file is enabled again: a call of it succeeded",
    ]
    moment = re.fullmatch(f"read_file kept failing and is disabled; {when}", disabling)[1]
    assert health._epoch(moment) >= started + 1000  # never too early
