"""What an operator and a newcomer see: the status, the screens, the examples, the metrics."""

import json
import re
import shutil
import sqlite3
import subprocess
import sys
import time
from contextlib import closing
from types import SimpleNamespace

import pytest
from documents import ROOT, snippets
from quillet.config import ToolsConfig
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker

sys.path.append(str(ROOT / "examples"))
from metrics import ToolHealthCollector  # noqa: E402

THEN = "2023-11-14 22:13:20"
ROWS = [("read_file", 12, 3, "FileNotFoundError: there is no [b]\x1b\n", THEN, ""),
        ("embed_text", 7, 1, b"\xff", None, THEN),
        ("count_lines", "x", 0, None, None, "")]  # fmt: skip
USAGE = [("read_file", None, "ok", True, 9, 8, 18), ("embed_text", "x", "ok", False, 6, 6, 1.5),
         ("embed_text", "x", "error", False, 1, 0, 0)]  # fmt: skip
KEYS = "tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms"


@pytest.fixture
def folder(tmp_path):
    """A folder with a stored history, from which the documents' commands can be run."""
    with Repository(tmp_path) as repository:
        insert = "INSERT INTO tool_health VALUES (?, ?, ?, CAST(? AS TEXT), ?, ?)"
        repository.db.executemany(insert, ROWS)
        usage = json.dumps([dict(zip(KEYS, row)) for row in USAGE])
        repository.db.execute("INSERT INTO schema_info VALUES ('tool_usage', ?)", [usage])
    for name in (".venv", "examples"):
        (tmp_path / name).symlink_to(ROOT / name)
    return tmp_path


def quillet(*arguments, **options):
    command = [sys.executable, "-P", "-m", "quillet", *arguments]
    return subprocess.run(command, capture_output=True, text=True, **options)


def test_the_status_shows_all_that_is_stored_and_leaves_it_alone(folder):
    own, killed = folder / ".quillet", folder / "killed"
    with Repository(folder) as running:
        running.db.execute("UPDATE tool_health SET call_count = 6 WHERE error_count = 1", ())
        shutil.copytree(own, killed)  # as a daemon leaves it that is killed
    for place, cooldown_s in ((own, 1e300), (killed, 90)):
        (folder / "config").write_text(f"[tools]\ndisable_cooldown_s = {cooldown_s}")
        before = {f: f.read_bytes() for f in place.iterdir() if not f.name.endswith("-shm")}
        options = ["--database", place / "quillet.db", "--config", folder / "config", "--check"]
        run = quillet("status", *options)
        assert before == {f: f.read_bytes() for f in place.iterdir() if f in before}
        shown = json.loads(run.stdout)
        if place is own:
            assert before.keys() == {*own.iterdir()} and not shown["tools"][0]["tried_again_at"]
    [damaged], [read, embed] = shown["damaged"], shown["tools"]
    assert run.returncode == 2 and "'count_lines'" in damaged and "'x'" in damaged
    assert (embed["call_count"], embed["last_error"], embed["tried_again_at"]) == (6, "\\xff", None)
    assert (read["tried_again_at"], read["tried_again_in_s"]) == ("2023-11-14 22:14:51", 0)


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


def test_the_examples_show_what_they_say(tmp_path):
    options = ["--config", "examples/config.toml", "--database", tmp_path / "db"]
    text, logged = "", []
    for name in ("first_run", "second_run", "process"):
        run = quillet("play", f"examples/{name}.jsonl", *options, cwd=ROOT)
        text += run.stdout + "\n"
        assert run.returncode == 0
        logged += [line.split(" ", 2)[2] for line in run.stderr.splitlines()]
    # A step is a heading with answers below it, each with its number and how it ended.
    steps = [step.splitlines() for step in text.split("\n\n") if step[:1].isalpha()]
    ends = [" ".join(line.split()[1] for line in step if line[2].isdigit()) for step in steps]
    first = "ok ok ok, failed failed failed, failed ok, ok, ok, failed failed failed"
    assert ", ".join(ends) == f"{first}, ok, ok ok, ok, ok ok"
    disabling, enabling = logged
    told = (
        r"WARNING read_file kept failing and is disabled; it is tried again at \S+ \S+ UTC, in 3 s"
    )
    assert re.fullmatch(told, disabling)
    assert enabling == "INFO read_file is enabled again: its cooldown has passed"
    assert "\n     read_file: 3 of 4 runs failed; last error: " in text
    assert re.search("\n     read_file +error +no +3 +-\n", text)
    tools = json.loads(quillet("status", "--database", tmp_path / "db").stdout)["tools"]
    usage = {tool["tool_name"]: tool["usage"] for tool in tools}["status"]
    called = [(row["action"], row["alias_hit"], row["calls"]) for row in usage if row["calls"] < 2]
    assert sorted(called) == [("perf_stats", False, 1), ("perf_stats", True, 1)]
    assert re.search(r"\n     NAME  .* ERRORS\n     count_lines +1( +\d+\.\d\d){4} +0\n", text)
    assert text.rstrip().endswith("own size).")
    for line in ("[]", '{"wait_s": 5.01}', '{"tool": "a", "arguments": []}', "[" * 9999):
        run = quillet("play", *options, input=f"# a comment\n\n{line}\n")
        assert (run.returncode, run.stdout) == (1, "a comment\n\n")
        assert run.stderr.startswith("quillet: line 3: ")


def test_no_command_takes_modules_from_the_folder_or_the_environment(folder):
    home = folder / "a checkout"
    (home / "bin").mkdir(parents=True)
    (folder / "served").mkdir()
    Repository(folder / "served").db.close()
    shutil.copy(ROOT / ".venv/bin/quillet", home / "bin")
    shutil.copy(ROOT / ".venv/pyvenv.cfg", home)
    for name in ("bin/python", "lib"):
        (home / name).symlink_to(ROOT / ".venv" / name)
    for name in ("json", "sitecustomize", "usercustomize", "rich", "quillet", "asyncio"):
        for place in (folder, folder / "served"):
            (place / f"{name}.py").write_text("raise SystemExit('hostile')")
    server = json.loads(snippets("README.md", "json")[0])["mcpServers"]["quillet"]
    assert server["command"].endswith("/.venv/bin/quillet")
    assert server["args"][:2] == ["serve", "--repository"]
    for command, answer in {"serve": "", "play": "", "status": '{"database": '}.items():
        run = subprocess.run(
            [home / "bin/quillet", command, "--repository", "served"],
            cwd=folder, env={"PYTHONPATH": "."}, stdin=-3, capture_output=True, text=True,
        )  # fmt: skip
        assert (run.returncode, run.stderr) == (0, "") and run.stdout.startswith(answer)


def test_the_commands_of_operations_do_what_it_says(folder):
    def run(command):
        return subprocess.check_output(["bash", "-euc", command], cwd=folder, stdin=-3, text=True)

    show, check, metrics, enable, forget, forget_all, copy, remove, guard, guarded = snippets(
        "docs/operations.md", "sh"
    )
    screen, exported = snippets("docs/operations.md", "text")
    [in_the_daemon] = snippets("docs/operations.md", "python")
    assert run(show) == screen and run(check) == "exit status 2\n"
    assert re.sub("#.*\n", "", run(metrics)) == exported
    refused = quillet("serve", input="", cwd=folder)
    told = f"quillet: {folder}/.quillet/quillet.db: correct or delete these rows and start again\n"
    told += "  Could not read the tool_health row of 'count_lines': "
    assert refused.returncode == 2 and refused.stderr.startswith(told)
    run(enable)
    run(forget)
    assert quillet("serve", input="", cwd=folder).returncode == 0
    assert run(check) == ""
    with Repository(folder) as repository:
        tracker = ToolHealthTracker(repository, ToolsConfig(1))
        tracker.record_error("read_file", "e")
        tracker.flush()
        assert run(check) == "exit status 1\n"
        exec(in_the_daemon, {"tracker": tracker})
        assert tracker.is_disabled("read_file") == (False, None)
        run(copy)
    run(forget_all)
    assert run(check) == "" and json.loads((folder / "health.json").read_text())["tools"] == []
    run(remove)
    assert sorted(file.name for file in (folder / ".quillet").iterdir()) == ["quillet.db.lock"]
    assert run(guard) == "" and json.loads(run(guarded))["database"] == "guard.db"
    with closing(sqlite3.connect(folder / "copy.db")) as db:
        assert [(1,)] == db.execute("SELECT count(*) FROM tool_health WHERE disabled_at").fetchall()
    collector = ToolHealthCollector(tracker, SimpleNamespace(saved_at=time.time(), saved=False))
    names = {sample.name for metric in collector.collect() for sample in metric.samples}
    assert set(re.findall("tool_health_\\w+", snippets("docs/operations.md", "yaml")[0])) <= names
