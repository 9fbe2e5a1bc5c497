"""What an operator and a newcomer see: the status, the screen, the examples, the metrics."""

import importlib
import json
import sqlite3
import subprocess
import sys
from contextlib import closing
from pathlib import Path
from types import SimpleNamespace

import pytest
from documents import snippets
from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.parser import text_string_to_metric_families
from quillet.config import ToolsConfig
from quillet.daemon.tool_pipeline import Answer, Outcome
from quillet.rendering import as_json, as_text
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker

ROOT = Path(__file__).parents[1]
THEN = "2023-11-14 22:13:20"
ROWS = [
    ("gone", 9, 3, b"\xff", None, THEN),
    ("read_file", 5, 2, "e", THEN, ""),
    ("search_text", 1, 1, None, "9000-01-01 00:00:00", ""),
    ("count_lines", "x", 0, None, None, ""),
]
USAGE = """[{"tool": "gone", "action": null, "outcome": "ok", "alias_hit": true, "calls": 4,
             "timed_calls": 2, "total_ms": 25}]"""


@pytest.fixture
def database(tmp_path):
    """A stored history, in a folder from which the documents' commands can be run."""
    with Repository(tmp_path) as repository:
        repository.db.executemany("INSERT INTO tool_health VALUES (?, ?, ?, ?, ?, ?)", ROWS)
        repository.db.execute("INSERT INTO schema_info VALUES ('tool_usage', ?)", [USAGE])
    for name in (".venv", "examples"):
        (tmp_path / name).symlink_to(ROOT / name)
    return tmp_path / ".quillet" / "quillet.db"


def quillet(*arguments, **options):
    command = [sys.executable, "-P", "-m", "quillet", *arguments]
    return subprocess.run(command, capture_output=True, text=True, **options)


def status(database, *options):
    run = quillet("status", "--database", database, *options)
    assert (run.returncode, run.stderr) == (0, "")
    return json.loads(run.stdout)


def test_the_status_shows_all_that_is_stored_and_leaves_it_alone(database):
    config = database.parents[1] / "config.toml"
    config.write_text("[tools]\ndisable_cooldown_s = 90")

    def stored():
        return set(database.parent.iterdir()), database.read_bytes()

    before = stored()
    assert status(database)["cooldown_s"] == 300 and stored() == before
    with Repository(database.parent, database) as running:
        running.db.execute("UPDATE tool_health SET call_count = 6 WHERE tool_name = ?", ["gone"])
        before = stored()
        shown = status(database, "--config", config)
        assert stored() == before
        running.db.execute("UPDATE schema_info SET value = ?", ["{"])
        assert status(database)["damaged"][1].startswith("Could not read the tool usage counts: ")
    [damaged] = shown["damaged"]
    gone, read, search = shown["tools"]
    assert "'count_lines'" in damaged and "'x'" in damaged
    assert (gone["call_count"], gone["last_error"], gone["tried_again_at"]) == (6, "\\xff", None)
    assert (gone["usage"][0]["calls"], gone["usage"][0]["avg_ms"]) == (4, 12.5)
    assert (read["tried_again_at"], read["tried_again_in_s"]) == ("2023-11-14 22:14:50", 0)
    assert search["tried_again_at"] == "9000-01-01 00:01:30"
    assert search["tried_again_in_s"] > 10**9


@pytest.mark.parametrize("wrong", ["missing", "folder", "text", "foreign", "locked"])
def test_a_file_without_a_status_is_named(tmp_path, wrong):
    file = tmp_path / "a.db"
    if wrong == "folder":
        file.mkdir()
    elif wrong == "text":
        file.write_text(wrong * 100)
    with closing(sqlite3.connect(file if wrong in ("foreign", "locked") else ":memory:")) as other:
        other.executescript("PRAGMA journal_mode = WAL; CREATE TABLE t (x)")
        if wrong == "locked":
            other.executescript("PRAGMA locking_mode = EXCLUSIVE; INSERT INTO t VALUES (1)")
        run = quillet("status", "--database", file)
    assert (run.returncode, run.stdout, run.stderr.count("\n")) == (2, "", 1)
    assert str(file) in run.stderr and ("locked" in run.stderr) == (wrong == "locked")
    assert wrong != "missing" or not file.exists()


@pytest.mark.parametrize("columns", [50, 120])
def test_the_screen_is_neither_upset_nor_exceeded(monkeypatch, columns):
    monkeypatch.setenv("COLUMNS", str(columns))
    usage = dict(action=None, outcome="ok", alias_hit=False, calls=1, avg_ms=None, slow=False)
    tool = dict(tool_name="t", call_count=9, error_count=1, disabled=True, disabled_at=THEN)
    tool |= {"last_error": "[red]\x1b[0m\udce9\n" * 20, "usage": [usage, usage | {"avg_ms": 2.5}]}
    threads = {"python": 1, "python_by_name": {"[b]": 1}, "budget": 6, "warning": "too [many]"}

    def shown(tools, cooldown_s):
        content = {"tools": tools, "cooldown_s": cooldown_s, "threads": threads}
        lines = as_text(1, "status", Answer(Outcome.OK, "perf_stats", 1.0, content)).splitlines()
        assert max(map(len, lines)) <= columns and all(line.isprintable() for line in lines)
        return "".join("".join(lines).split())

    once = shown([tool], 1.0)
    assert once.count("[red]\\x1b[0m\\udce9\\n") == 20 and "too[many]" in once and "[b]" in once
    assert "t:disabledsince2023-11-1422:13:20UTC,triedagainatthenextcall" in once
    assert "tokno1-no" in once and "tokno12.50no" in once
    assert "triedagainat2340-10-0415:59:00UTC,in" in shown([tool], 1e10 - 60)
    assert "LASTERROR" in once and "LASTERROR" not in shown([tool | {"last_error": None}], 1.0)
    assert "triedagainnever" in shown([tool], 1e300) and "TOOL" not in shown([], 1.0)
    answer = Answer(Outcome.OK, None, 1.0, {"a": [float("nan"), b"\xff" + b"x" * 999]})
    assert json.loads(as_json(1, "t", answer))["content"] == {"a": [None, "\\xff" + "x" * 999]}
    assert as_text(1, "t", answer).endswith("xx…") and as_text(1, "t", answer).count("\n") == 1


def test_the_examples_show_what_they_say(tmp_path):
    options = ["--config", "examples/config.toml", "--database", tmp_path / "db", "--text"]
    text = ""
    for name in ("first_run", "second_run", "threads"):
        run = quillet("--repository", ".", *options, f"examples/{name}.jsonl", cwd=ROOT)
        assert run.returncode == 0
        text += run.stdout + "\n"
    # A step is a heading with answers below it, each with its line's number and how it ended.
    steps = [step.splitlines() for step in text.split("\n\n") if step[:1].isalpha()]
    ends = [" ".join(line.split()[1] for line in step if line[2].isdigit()) for step in steps]
    first = "ok ok ok, error error error, disabled ok, ok, ok, invalid invalid invalid, ok"
    assert ", ".join(ends) == first + ", ok ok, ok, ok ok, "
    assert "read_file: disabled since" in text and "UTC, in 0:00:0" in text


def test_the_metrics_are_what_the_librarys_own_parser_reads(monkeypatch):
    monkeypatch.syspath_prepend(ROOT / "examples")
    usage = dict(action="x", outcome="ok", alias_hit=True, calls=3, avg_ms=2.5)
    untimed = dict(action=None, outcome="error", alias_hit=False, calls=2, avg_ms=None)
    record = dict(tool_name='"\udce9\n', call_count=4, error_count=1, disabled=True)
    record |= {"usage": [usage, untimed]}
    tracker = SimpleNamespace(get_health_summary=lambda: [record])
    registry = CollectorRegistry()
    registry.register(importlib.import_module("metrics").ToolHealthCollector(tracker))
    families = text_string_to_metric_families(generate_latest(registry).decode())
    samples = [sample for family in families for sample in family.samples]
    assert [(sample.name.removeprefix("tool_health_"), sample.value) for sample in samples] == [
        ("runs_total", 4), ("errors_total", 1), ("disabled", 1), ("calls_total", 3),
        ("calls_total", 2), ("call_mean_seconds", 0.0025),
    ]  # fmt: skip
    assert {sample.labels["tool"] for sample in samples} == {'"\\udce9\n'}
    labels = {"action": "", "outcome": "error", "synonym": "false"}
    assert samples[4].labels == samples[0].labels | labels


def test_the_commands_of_operations_do_what_it_says(database):
    folder = database.parents[1]

    def run(command):
        return subprocess.check_output(["bash", "-euc", command], cwd=folder, text=True)

    show, metrics, enable, forget, forget_all = snippets(ROOT / "docs" / "operations.md", "sh")
    [in_the_daemon] = snippets(ROOT / "docs" / "operations.md", "python")
    assert [tool["disabled"] for tool in json.loads(run(show))["tools"]] == [False, True, True]
    assert 'tool_health_disabled{tool="read_file"} 1.0' in run(metrics)
    run(enable)
    assert [tool["disabled"] for tool in status(database)["tools"]] == [False, False, True]
    assert quillet("--repository", folder, input="").returncode == 2
    run(forget)
    assert quillet("--repository", folder, input="").returncode == 0
    with Repository(folder) as repository:
        tracker = ToolHealthTracker(repository, ToolsConfig(1))
        tracker.record_error("read_file", "e")
        exec(in_the_daemon, {"tracker": tracker})
        assert tracker.is_disabled("read_file") == (False, None)
    run(forget_all)
    assert status(database)["tools"] == []
