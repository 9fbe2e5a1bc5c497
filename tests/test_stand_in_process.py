"""The stand-in as a process: how it starts, what it is fed, and how it ends."""

import json
import os
import pty
import signal
import sqlite3
import subprocess
import sys
import time
from io import StringIO
from types import SimpleNamespace

import pytest
from quillet.config import ToolsConfig
from quillet.daemon import flusher
from quillet.player import Player
from quillet.repository import Repository
from quillet.tool_handlers import health

THREADS = '{"tool": "status", "arguments": {"action": "threads"}}\n'
HEALTH = '{"tool": "status", "arguments": {"action": "perf_stats"}}\n'


@pytest.fixture
def daemon():
    """The stand-in's own registry, in place of the tests'."""


@pytest.fixture
def database(tmp_path):
    return tmp_path / "tools.db"


@pytest.fixture
def start(database):
    """Starts the program in a shell, with redirections if need be; killed in the end."""
    started = []

    def start(repository=".", shell="", before="", **streams):
        program = f"{before} exec '{sys.executable}' -P -m quillet --repository {repository}"
        command = f"{program} --database '{database}' {shell}"
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE) | streams
        started.append(subprocess.Popen(["bash", "-c", command], text=True, **pipes))
        return started[-1]

    yield start
    for process in started:
        with process:
            process.kill()


def answer(process, line=THREADS):
    """The answer to a line."""
    process.stdin.write(line)
    process.stdin.flush()
    return json.loads(process.stdout.readline())


@pytest.mark.parametrize("signals", [["INT", "INT"], ["TERM"], ["HUP", "INT"]], ids="-".join)
def test_a_signal_ends_it_amid_a_search_with_every_answered_call_saved(start, database, signals):
    process = start(repository="/usr")
    answer(process)
    other = sqlite3.connect(database, isolation_level=None)
    other.execute("BEGIN IMMEDIATE")  # so that the later signals come amid the last flush
    process.stdin.write('{"tool": "search_text", "arguments": {"text": "no such text"}}\n')
    process.stdin.flush()
    for name in signals:
        process.send_signal(signal.Signals[f"SIG{name}"])
        time.sleep(0.2)
    other.execute("ROLLBACK")
    assert process.communicate(timeout=20)[0] == ""
    assert process.returncode == 128 + signal.Signals[f"SIG{signals[0]}"]
    saved = other.execute("SELECT tool_name, call_count FROM tool_health")
    assert saved.fetchall() == [("status", 1)]
    other.close()


@pytest.mark.parametrize(
    ("shell", "status", "answers", "said"),
    [
        (">&-", 2, 0, "output is closed"),
        (">/dev/full", 1, 0, "line 1: the answer cannot be"),
        ("<&-", 2, 0, "Bad file descriptor"),
        ("2>&-", 1, 2, ""),
        ("2>/dev/full", 1, 2, ""),
    ],
)
def test_closed_and_full_streams(start, shell, status, answers, said):
    process = start(shell=shell)
    out, errors = process.communicate(f"{THREADS}{{\n{THREADS}", timeout=20)
    assert process.returncode == status
    assert [json.loads(line)["line"] for line in out.splitlines()] == [1, 3][:answers]
    assert said in errors and "Traceback" not in errors


def test_it_outlives_its_terminal_but_not_its_reader(start):
    reader, answers = os.pipe()
    process = start(before="trap '' HUP;", stdout=answers)
    os.close(answers)
    process.stdin.write(THREADS)
    process.stdin.flush()
    assert os.read(reader, 1) == b"{"
    process.send_signal(signal.SIGHUP)
    os.close(reader)
    assert process.communicate(THREADS, timeout=20)[1] == ""
    assert process.returncode == 1


def test_no_line_ends_it(capsys):
    async def call(tool, arguments):
        raise RecursionError("too deep")

    assert not Player(SimpleNamespace(call=call), False).play(StringIO(THREADS * 2))
    assert capsys.readouterr().err == "quillet: line 1: too deep\nquillet: line 2: too deep\n"


def test_a_line_is_refused_before_it_ends(start):
    process = start()
    process.stdin.write("x" * 2_500_000)
    process.stdin.flush()
    assert "line 1: longer than 1,000,000 characters" in process.stderr.readline()
    process.stdin.write("\n")
    assert answer(process)["line"] == 2
    assert process.communicate(timeout=20) == ("", "")
    assert process.returncode == 1


def test_a_second_daemon_and_a_removed_database_are_told(start, database):
    first = start()
    answer(first)
    second = start()
    assert second.communicate(timeout=20)[1] == (
        f"quillet: {database}: another daemon is using it\n"
    )
    assert second.returncode == 2
    database.unlink()
    answer(first)
    assert f"{database}: was removed or replaced" in first.communicate(timeout=20)[1]
    assert first.returncode == 3


def test_damaged_rows_are_shown_or_named(start, database, tmp_path):
    insert = "INSERT INTO tool_health VALUES (?, ?, 1, CAST(? AS TEXT), NULL, '')"
    with Repository(tmp_path, database) as repository:
        repository.db.execute(insert, ("read_file", 7, b"caf\xe9"))
        repository.db.execute(insert.replace("CAST(? AS TEXT)", "?"), ("status", 7, b"\0\xe9"))
    process = start()
    tools = answer(process, HEALTH)["content"]["tools"]
    assert {tool["last_error"] for tool in tools} == {"caf\\xe9", "\0\\xe9"}
    process.communicate()
    with Repository(tmp_path, database) as repository:
        repository.db.execute(insert, ("embed_text", "many", None))
    errors = start().communicate(timeout=20)[1]
    assert f"{database}: correct or delete these rows" in errors and "'embed_text'" in errors
    database.write_text("Not a database at all." * 100)
    assert f"{database}: file is not a database" in start().communicate(timeout=20)[1]


def test_a_terminal_is_told_what_is_awaited(start):
    terminal, stdin = pty.openpty()
    process = start(stdin=stdin)
    assert "waiting for calls" in process.stderr.readline()
    os.write(terminal, b"\x04")
    assert process.wait(timeout=20) == 0
    out, _ = start(shell="--help").communicate(timeout=20)
    for said in ('"arguments"', "search_text(text: str", "perf_stats", "quillet.db", "128+n"):
        assert said in out


def test_a_failed_flush_is_told_and_tried_again(repository, caplog, monkeypatch):
    monkeypatch.setattr(flusher, "PERIOD_S", 0.001)
    repository.db.failures["executemany"] = sqlite3.OperationalError("the disk is full")
    tracker = health.ToolHealthTracker(repository, ToolsConfig())
    tracker.record_success("status")
    with flusher.Flusher(tracker) as periodic:
        while not caplog.messages:
            time.sleep(0.001)
        assert not periodic.saved and "the disk is full" in caplog.text
        repository.db.failures.clear()
        while tracker.has_unsaved_changes:
            time.sleep(0.001)
    assert periodic.saved
