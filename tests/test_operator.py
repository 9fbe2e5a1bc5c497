"""What an operator and a newcomer see: the status, the screens, the examples, the metrics."""

import json
import os
import re
import shutil
import sqlite3
import subprocess
import sys
from contextlib import closing
from types import SimpleNamespace

import pytest
from conftest import MEMBERS
from documents import ROOT, snippets
from quillet.config import ToolsConfig
from quillet.database import Database
from quillet.repository import Repository
from quillet.tool_handlers import health
from quillet.tool_handlers.health import ToolHealthTracker

sys.path.append(str(ROOT / "examples"))
from metrics import ToolHealthCollector  # noqa: E402

PAGE = "docs/operations.md"
THEN = "2023-11-14 22:13:20"
ROWS = [("read_file", 12, 3, "FileNotFoundError: there is no [b]\x1b\n", THEN, ""),
        ("embed_text", 7, 1, b"\xff", None, THEN),
        ("count_lines", "x", 0, None, None, "")]  # fmt: skip
USAGE = [("read_file", None, "ok", True, 9, 8, 18), ("embed_text", "x", "ok", False, 6, 6, 1.5),
         ("embed_text", "x", "error", False, 1, 0, 0)]  # fmt: skip


@pytest.fixture
def folder(tmp_path):
    """A folder with a stored history, from which the documents' commands can be run."""
    with closing(Database(tmp_path / "tools.db")) as db:
        insert = "INSERT INTO tool_health VALUES (?, ?, ?, CAST(? AS TEXT), ?, ?)"
        db.executemany(insert, ROWS)
        usage = json.dumps([dict(zip(MEMBERS, row)) for row in USAGE])
        db.execute("INSERT INTO schema_info VALUES ('tool_usage', ?)", [usage])
    for name in (".venv", "examples"):
        (tmp_path / name).symlink_to(ROOT / name)
    return tmp_path


def quillet(*arguments, program=(sys.executable, "-P", "-m", "quillet"), **options):
    return subprocess.run([*program, *arguments], capture_output=True, text=True, **options)


def test_the_status_shows_all_that_is_stored_and_leaves_it_alone(folder):
    def files():
        return {f: f.read_bytes() for f in folder.rglob("tools.db*") if f.name[-4:] != "-shm"}

    def status(database, cooldown_s):
        (folder / "config").write_text(f"[tools]\ndisable_cooldown_s = {cooldown_s}")
        before = files()
        run = quillet("status", "--database", database, "--config", folder / "config")
        assert before == files()
        return json.loads(run.stdout)["tools"]

    own, killed = folder / "tools.db", folder / "killed"
    killed.mkdir()
    with closing(Database(own)) as db:
        db.execute(
            "UPDATE tool_health SET last_error = x'ff', call_count = 6 WHERE error_count = 1", ()
        )
        db.execute(
            "UPDATE tool_health SET call_count = 1, disabled_at = x'30' WHERE error_count = 0", ()
        )
        for file in files():  # as a daemon leaves them that is killed
            shutil.copy(file, killed)
    read, embed = status(killed / "tools.db", 90)
    assert (read["tried_again_at"], read["tried_again_in_s"]) == ("2023-11-14 22:14:51", 0)
    assert (embed["call_count"], embed["last_error"], embed["tried_again_at"]) == (6, "\\xff", None)
    assert status(own, 1e300)[0]["tried_again_at"] is None
    assert not (folder / "tools.db-wal").exists()


def test_a_file_without_a_status_is_named(tmp_path):
    file = tmp_path / "a.db"
    missing = quillet("status", "--database", file)
    assert not file.exists()
    with closing(sqlite3.connect(file)) as other:
        other.executescript("PRAGMA locking_mode = EXCLUSIVE; CREATE TABLE t (x)")
        locked = quillet("status", "--database", file)
    told = f"[Errno 2] No such file or directory: '{file}'", f"{file}: database is locked"
    for run, words in zip((missing, locked), told):
        assert (run.returncode, run.stdout, run.stderr) == (2, "", f"quillet: {words}\n")


def test_the_examples_show_what_they_say(tmp_path, monkeypatch):
    model = tmp_path / "model"
    monkeypatch.setenv("QUILLET_EMBED_MODEL", str(model))
    monkeypatch.setenv("TZ", "Asia/Tokyo")  # all times are in UTC all the same
    options = ["--config", "examples/config.toml", "--database", tmp_path / "db"]
    text, logged = "", []
    for name in ("first_run", "second_run", "process"):
        run = quillet("play", f"examples/{name}.jsonl", *options, cwd=ROOT)
        text += run.stdout + "\n"
        assert run.returncode == 0
        logged += run.stderr.splitlines()
        model.write_text("as good as a model")
        with closing(sqlite3.connect(tmp_path / "db", isolation_level=None)) as db:
            later = "disabled_at = datetime('now', '+1 second')"  # lest a slow start comes too late
            db.execute(f"UPDATE tool_health SET {later} WHERE disabled_at")
    ends = "".join(end[0] for end in re.findall(r"^ +\d+  (ok|failed) ", text, re.M))
    assert ends == "ooo fff fff foo f o o oo o oo".replace(" ", "")
    logged_at, again_at = re.findall(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", logged[0])
    assert 3 < health._epoch(again_at) - health._epoch(logged_at) < 7
    disabling, enabling = (line.split(" UTC ", 1)[1] for line in logged)
    assert disabling.startswith("WARNING embed_text kept failing and is disabled; it is tried ")
    assert enabling == "INFO embed_text is enabled again: its cooldown has passed"
    assert "\n     embed_text: 3 of 4 runs failed; last error: " in text
    assert re.search("\n     embed_text +disabled +no +2 +-\n", text)
    assert re.search("\n     read_file +invalid +no +1 +-\n", text)
    status = quillet("status", "--text", "--database", tmp_path / "db").stdout
    assert sorted(re.findall("\nstatus perf_stats +ok +(yes|no) +1 ", status)) == ["no", "yes"]
    assert re.search(r"\n     NAME  .* ERRORS\n     count_lines +1( +\d+\.\d\d){4} +0\n", text)
    assert text.rstrip().endswith("own size).")
    for line in ("[]", '{"wait_s": 5.01}', '{"tool": "a", "arguments": []}', "[" * 9999):
        run = quillet("play", *options, input=f"# a comment\n\n{line}\n")
        assert (run.returncode, run.stdout) == (1, "a comment\n\n")
        assert run.stderr.startswith("quillet: line 3: ")


def test_no_command_takes_modules_from_a_folder_or_leaves_anything_in_it(folder):
    home = folder / "a checkout"
    (home / "bin").mkdir(parents=True)
    (folder / "served").mkdir()
    shutil.copy(ROOT / ".venv/bin/quillet", home / "bin")
    shutil.copy(ROOT / ".venv/pyvenv.cfg", home)
    for name in ("bin/python", "lib"):
        (home / name).symlink_to(ROOT / ".venv" / name)
    for name in ("json", "sitecustomize", "usercustomize", "rich", "quillet", "asyncio"):
        for place in (folder, folder / "served"):
            (place / f"{name}.py").write_text("raise SystemExit('hostile')")
    old = folder / "served/.quillet/quillet.db"
    old.parent.mkdir()
    old.touch()
    state, served = folder / "state/quillet", sorted((folder / "served").rglob("*"))
    environment = {"PYTHONPATH": ".", "XDG_STATE_HOME": str(folder / "state")}
    for command, answer in {"serve": "", "play": "", "status": f'{{"database": "{state}/'}.items():
        options = {"program": [home / "bin/quillet"], "cwd": folder, "env": environment}
        run = quillet(command, "--repository", "served", stdin=-3, **options)
        assert run.returncode == 0 and run.stdout.startswith(answer)
        [own] = state.glob("*.db")
        told = f"{old} is not used any more: move it to {own}, or remove it"
        assert run.stderr == f"quillet: {told}\n"
    assert sorted((folder / "served").rglob("*")) == served and state.stat().st_mode & 0o77 == 0


def test_the_commands_of_operations_do_what_it_says(folder):
    def run(command):
        bash = ["bash", "-euc", command]
        return subprocess.check_output(bash, cwd=folder, stdin=-3, text=True, env=home)

    home = {**os.environ, "HOME": str(folder)}
    show, check, metrics, enable, forget, forget_all, copy, remove, *guard = snippets(PAGE, "sh")
    (screen, exported), [in_the_daemon] = snippets(PAGE, "text"), snippets(PAGE, "python")
    assert run(show) == screen and run(check) == "exit status 2\n"
    assert re.sub("#.*\n", "", run(metrics)) == exported
    serve = ["serve", "--database", "tools.db"]
    refused = quillet(*serve, input="", cwd=folder)
    told = "these rows and start again\n  Could not read the tool_health row of 'count_lines': "
    assert refused.returncode == 2 and told in refused.stderr
    assert run(enable + forget) + run(enable + forget) == "1\n1\n1\n0\n"
    assert quillet(*serve, input="", cwd=folder).returncode == 0
    assert not (folder / "tools.db-wal").exists()  # the file alone is a whole copy
    assert run(check) == ""
    with Repository(folder, folder / "tools.db") as repository:
        tracker = ToolHealthTracker(repository, ToolsConfig(1))
        tracker.record_error("read_file", "e")
        tracker.flush()
        assert run(check) == "exit status 1\n"
        exec(in_the_daemon, {"tracker": tracker})
        assert tracker.is_disabled("read_file") == (False, None)
        run(copy + copy)
    run(forget_all)
    assert run(check) == "" and json.loads((folder / "health.json").read_text())["tools"] == []
    run(remove)
    assert [file.name for file in folder.glob("tools.db*")] == ["tools.db.lock"]
    assert run(guard[0]) == "" and json.loads(run(guard[1]))["database"] == "guard.db"
    with closing(sqlite3.connect(folder / "tool-health.db")) as db:
        assert [(1,)] == db.execute("SELECT count(*) FROM tool_health WHERE disabled_at").fetchall()
    collector = ToolHealthCollector(tracker, SimpleNamespace(saved_at=0, saved=False))
    samples = {s.name: s.value for metric in collector.collect() for s in metric.samples}
    assert samples["tool_health_flush_failed"] == 1
    assert set(re.findall("tool_health_\\w+", snippets(PAGE, "yaml")[0])) <= samples.keys()
