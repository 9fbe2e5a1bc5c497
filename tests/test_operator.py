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
from quillet.rendering import as_text
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker

ROOT = Path(__file__).parents[1]
THEN = "2023-11-14 22:13:20"
ROWS = [
    ("gone", 9, 3, b"\xff", None, THEN),
    ("read_file", 5, 2, "e", THEN, ""),
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
    """What the program shows, having left everything in the database's folder as it was."""
    before = set(database.parent.iterdir()), database.read_bytes()
    run = quillet("status", "--database", database, *options)
    assert (run.returncode, run.stderr) == (0, "")
    assert before == (set(database.parent.iterdir()), database.read_bytes())
    return json.loads(run.stdout)


def test_the_status_shows_all_that_is_stored_and_leaves_it_alone(database, tmp_path):
    config = tmp_path / "config.toml"
    config.write_text("[tools]\ndisable_cooldown_s = 90")
    assert status(database)["cooldown_s"] == 300
    with Repository(tmp_path) as running:
        running.db.execute("UPDATE tool_health SET call_count = 6 WHERE tool_name = ?", ["gone"])
        shown = status(database, "--config", config)
    [damaged], [gone, read] = shown["damaged"], shown["tools"]
    assert "'count_lines'" in damaged and "'x'" in damaged
    assert (gone["call_count"], gone["last_error"], gone["tried_again_at"]) == (6, "\\xff", None)
    assert (gone["usage"][0]["calls"], gone["usage"][0]["avg_ms"]) == (4, 12.5)
    assert (read["tried_again_at"], read["tried_again_in_s"]) == ("2023-11-14 22:14:50", 0)


@pytest.mark.parametrize("wrong", ["missing", "foreign", "locked"])
def test_a_file_without_a_status_is_named(tmp_path, wrong):
    file = tmp_path / "a.db"
    with closing(sqlite3.connect(":memory:" if wrong == "missing" else file)) as other:
        other.executescript("PRAGMA journal_mode = WAL; CREATE TABLE t (x)")
        if wrong == "locked":
            other.executescript("PRAGMA locking_mode = EXCLUSIVE; INSERT INTO t VALUES (1)")
        run = quillet("status", "--database", file)
    assert (run.returncode, run.stdout, run.stderr.count("\n")) == (2, "", 1)
    assert str(file) in run.stderr and ("locked" in run.stderr) == (wrong == "locked")
    assert file.exists() == (wrong != "missing")


@pytest.mark.parametrize("columns", [50, 120])
def test_the_screen_is_neither_upset_nor_exceeded(monkeypatch, columns):
    monkeypatch.setenv("COLUMNS", str(columns))
    usage = dict(action=None, outcome="ok", alias_hit=False, calls=1, avg_ms=2.5, slow=False)
    tool = dict(tool_name="t", call_count=9, error_count=1, disabled=True, disabled_at=THEN)
    tool |= {"last_error": "[red]\x1b[0m\udce9\n" * 20, "usage": [usage]}
    threads = {"python": 1, "python_by_name": {"[b]": 1}, "budget": 6, "warning": "too [many]"}
    for cooldown_s, again in (
        (1.0, "atthenextcall"),
        (1e10 - 60, "at2340-10-0415:59:00UTC,in"),
        (1e300, "never"),
    ):
        content = {"tools": [tool], "cooldown_s": cooldown_s, "threads": threads}
        lines = as_text(1, "status", Answer(Outcome.OK, "perf_stats", 1.0, content)).splitlines()
        assert max(map(len, lines)) <= columns and all(line.isprintable() for line in lines)
        shown = "".join("".join(lines).split())
        assert f"t:disabledsince2023-11-1422:13:20UTC,triedagain{again}" in shown
        assert shown.count("[red]\\x1b[0m\\udce9\\n") == 20 and "tokno12.50no" in shown
        assert "too[many]" in shown and "[b]" in shown


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


def test_the_metrics_are_what_the_librarys_own_parser_reads(monkeypatch):
    monkeypatch.syspath_prepend(ROOT / "examples")
    usage = dict(action=None, outcome="ok", alias_hit=True, calls=3, avg_ms=2.5)
    record = dict(tool_name='"\udce9\n', call_count=4, error_count=1, disabled=True)
    record |= {"usage": [usage, usage | {"outcome": "error", "calls": 2, "avg_ms": None}]}
    registry = CollectorRegistry()
    tracker = SimpleNamespace(get_health_summary=lambda: [record])
    registry.register(importlib.import_module("metrics").ToolHealthCollector(tracker))
    families = text_string_to_metric_families(generate_latest(registry).decode())
    samples = [sample for family in families for sample in family.samples]
    names = ["runs_total", "errors_total", "disabled", *["calls_total"] * 2, "call_mean_seconds"]
    assert [sample.name.removeprefix("tool_health_") for sample in samples] == names
    assert [sample.value for sample in samples] == [4, 1, 1, 3, 2, 0.0025]
    labels = {"tool": '"\\udce9\n', "action": "", "outcome": "error", "synonym": "true"}
    assert samples[4].labels == labels


def test_the_commands_of_operations_do_what_it_says(database, tmp_path):
    def run(command):
        return subprocess.check_output(["bash", "-euc", command], cwd=tmp_path, text=True)

    show, metrics, enable, forget, forget_all = snippets(ROOT / "docs" / "operations.md", "sh")
    [in_the_daemon] = snippets(ROOT / "docs" / "operations.md", "python")
    assert [tool["disabled"] for tool in json.loads(run(show))["tools"]] == [False, True]
    assert 'tool_health_disabled{tool="read_file"} 1.0' in run(metrics)
    run(enable)
    assert [tool["disabled"] for tool in status(database)["tools"]] == [False, False]
    assert quillet("--repository", tmp_path, input="").returncode == 2
    run(forget)
    assert quillet("--repository", tmp_path, input="").returncode == 0
    with Repository(tmp_path) as repository:
        tracker = ToolHealthTracker(repository, ToolsConfig(1))
        tracker.record_error("read_file", "e")
        exec(in_the_daemon, {"tracker": tracker})
        assert tracker.is_disabled("read_file") == (False, None)
    run(forget_all)
    assert status(database)["tools"] == []
