"""What an operator and a newcomer see: the status, the screen, the examples, the metrics."""

import json
import math
import sqlite3
import subprocess
import sys
from contextlib import closing
from pathlib import Path

import pytest
from documents import snippets
from quillet.config import ToolsConfig
from quillet.daemon.tool_pipeline import Answer, Outcome
from quillet.rendering import as_json, as_text, status_text
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker

ROOT = Path(__file__).parents[1]
THEN = "2023-11-14 22:13:20"
ROWS = [
    ('"\n', 9, 3, b"\xff", None, THEN),
    ("read_file", 5, 2, "e", THEN, ""),
    ("count_lines", "x", 0, None, None, ""),
]
USAGE = r"""[{"tool": "\"\n", "action": null, "outcome": "ok", "alias_hit": true, "calls": 4,
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
        running.db.execute("UPDATE tool_health SET call_count = 6 WHERE error_count = 3", ())
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


SCREENS = """
  1  ok        status perf_stats  1.0 ms
     t: disabled since 2023-11-14 22:13:20 UTC, tried again at the next call

     TOOL  CALLS  ERRORS  LAST ERROR
     t         9       1  \\xff[red]\\x1b
     u         3       0  -

     TOOL  OUTCOME   SYNONYM  CALLS  MEAN MS  SLOW
     t x   ok        yes          7     2.50  no
     t     disabled  no           2        -  yes

     threads: unknown, of them Python's 4 ([b] 3, m 1)
     too [many]
 12  ok        get_tool_performance_stats

     TOOL  CALLS  ERRORS  MEAN MS  P95 MS  MIN MS  MAX MS
     t         9       2     1.50    2.50    0.50    3.50
d: 2 tools, 1 disabled
[a] row
"""
ROW = dict(action="x", outcome="ok", alias_hit=True, calls=7, avg_ms=2.5, slow=False)
OTHER = dict(action=None, outcome="disabled", alias_hit=False, calls=2, avg_ms=None, slow=True)
TOOL = dict(tool_name="t", call_count=9, error_count=1, disabled=True, disabled_at=THEN)


def test_the_screens_show_each_value_in_its_place(monkeypatch):
    monkeypatch.setenv("COLUMNS", "100")
    fine = dict(tool_name="u", call_count=3, error_count=0, disabled=False, disabled_at=None)
    tools = [TOOL | dict(last_error=b"\xff[red]\x1b", usage=[ROW, OTHER])]
    tools += [fine | dict(last_error=None, usage=[])]
    threads = dict(python=4, python_by_name={"[b]": 3, "m": 1}, budget=6, warning="too [many]")
    content = dict(tools=tools, cooldown_s=300.0)
    times = dict(name="t", count=9, errors=2, avg_ms=1.5, p95_ms=2.5, min_ms=0.5, max_ms=3.5)
    perf_stats = Answer(Outcome.OK, "perf_stats", 1.0, content | dict(threads=threads))
    shown = "\n" + as_text(1, "status", perf_stats) + "\n"
    answer = Answer(Outcome.OK, None, None, dict(tools=[times]))
    shown += as_text(12, "get_tool_performance_stats", answer) + "\n"
    stored = status_text(content | dict(database="d", damaged=["[a] row"])).splitlines()
    assert shown + "\n".join(stored[:2]) + "\n" == SCREENS
    # What is stored is shown as what is answered, less the threads.
    assert stored[2:] == [line[5:] for line in SCREENS.splitlines()[2:11]]
    odd = Answer(Outcome.ERROR, None, None, [math.inf, -math.inf, math.nan, b"\xff"])
    assert as_json(1, "t", odd).endswith(r'"content": [null, null, null, "\\xff"]}')


@pytest.mark.parametrize(("cooldown_s", "again"), [(1e10 - 60, "at2340-10-04"), (1e300, "never")])
@pytest.mark.parametrize("columns", [50, 120])
def test_a_screen_is_not_exceeded(monkeypatch, columns, cooldown_s, again):
    monkeypatch.setenv("COLUMNS", str(columns))
    tool = TOOL | dict(last_error="[red]\x1b[0m\udce9\n" * 20, usage=[ROW])
    answer = Answer(Outcome.OK, "perf_stats", 1.0, dict(tools=[tool], cooldown_s=cooldown_s))
    lines = as_text(1, "status", answer).splitlines()
    assert max(map(len, lines)) <= columns and all(line.isprintable() for line in lines)
    shown = "".join("".join(lines).split())
    assert f"triedagain{again}" in shown and shown.count("[red]\\x1b[0m\\udce9\\n") == 20


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


METRICS = r"""tool_health_runs_total{tool="\"\n"} 9.0
tool_health_runs_total{tool="read_file"} 5.0
tool_health_errors_total{tool="\"\n"} 3.0
tool_health_errors_total{tool="read_file"} 2.0
tool_health_disabled{tool="\"\n"} 0.0
tool_health_disabled{tool="read_file"} 1.0
tool_health_calls_total{action="",outcome="ok",synonym="true",tool="\"\n"} 4.0
tool_health_call_mean_seconds{action="",outcome="ok",synonym="true",tool="\"\n"} 0.0125"""


def test_the_commands_of_operations_do_what_it_says(database, tmp_path):
    def run(command):
        return subprocess.check_output(["bash", "-euc", command], cwd=tmp_path, text=True)

    show, metrics, enable, forget, forget_all = snippets(ROOT / "docs" / "operations.md", "sh")
    [in_the_daemon] = snippets(ROOT / "docs" / "operations.md", "python")
    assert [tool["disabled"] for tool in json.loads(run(show))["tools"]] == [False, True]
    assert [line for line in run(metrics).splitlines() if line[0] != "#"] == METRICS.split("\n")
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
