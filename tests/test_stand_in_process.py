"""The stand-in as a process: how it starts, what it is fed, and how it ends."""

import json
import signal
import sqlite3
import subprocess
import sys
import time
from contextlib import closing

import pytest
from quillet.config import ToolsConfig
from quillet.daemon import flusher
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

    def start(shell="", repository=".", first=""):
        program = f"{first} exec '{sys.executable}' -P -m quillet --repository {repository}"
        command = ["bash", "-c", f"{program} --database '{database}' {shell}"]
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        started.append(subprocess.Popen(command, text=True, **pipes))
        return started[-1]

    yield start
    for process in started:
        with process:
            process.kill()


def send(process, text):
    process.stdin.write(text)
    process.stdin.flush()


def answer(process, line=THREADS):
    send(process, line)
    return json.loads(process.stdout.readline())


SEARCH = '{"tool": "search_text", "arguments": {"text": "no such text"}}\n'


@pytest.mark.parametrize(
    ("signals", "running"), [(["INT", "INT"], SEARCH), (["TERM"], ""), (["HUP", "INT"], SEARCH)]
)
def test_a_signal_ends_it_with_every_answered_call_saved(start, database, signals, running):
    process = start(repository="/usr")
    answer(process)
    other = sqlite3.connect(database, isolation_level=None)
    other.execute("BEGIN IMMEDIATE")  # so that the later signals come amid the last flush
    send(process, running)
    for name in signals:
        process.send_signal(signal.Signals[f"SIG{name}"])
        time.sleep(0.2)
    send(process, THREADS)  # too late to be saved, so never answered
    time.sleep(0.2)
    other.execute("ROLLBACK")
    assert process.communicate(timeout=20)[0] == ""
    assert process.returncode == 128 + signal.Signals[f"SIG{signals[0]}"]
    saved = other.execute("SELECT tool_name, call_count FROM tool_health")
    assert saved.fetchall() == [("status", 1)]
    other.close()


def test_a_signal_that_is_ignored_ends_nothing(start):
    process = start(first="trap '' HUP;")  # as nohup does
    answer(process)
    process.send_signal(signal.SIGHUP)
    assert answer(process)["line"] == 2
    process.communicate(timeout=20)
    assert process.returncode == 0


@pytest.mark.parametrize(
    ("shell", "status", "answers", "said"),
    [
        (">&-", 2, 0, "output is closed"),
        (">/dev/full", 1, 0, "line 1: the answer cannot be"),
        ("> >(head -c 1 >/dev/null)", 1, 0, ""),
        ("<&-", 2, 0, "Bad file descriptor"),
        ("2>&-", 1, 2, ""),
        ("2>/dev/full", 1, 2, ""),
    ],
)
def test_closed_and_full_streams(start, shell, status, answers, said):
    process = start(shell)
    out, errors = process.communicate(f"{THREADS}{{\n{THREADS}", timeout=20)
    assert process.returncode == status
    assert [json.loads(line)["line"] for line in out.splitlines()] == [1, 3][:answers]
    assert said in errors and "Traceback" not in errors


def test_a_line_is_refused_before_it_ends(start):
    process = start()
    send(process, "x" * 2_500_000)
    assert "line 1: longer than 1,000,000 characters" in process.stderr.readline()
    assert answer(process, "\n" + THREADS)["line"] == 2
    assert process.communicate(timeout=20) == ("", "") and process.returncode == 1


def test_a_second_daemon_and_a_removed_database_are_told(start, database):
    first = start()
    answer(first)
    second = start()
    told = second.communicate(timeout=20)[1], second.returncode
    assert told == (f"quillet: {database}: another daemon is using it\n", 2)
    with closing(sqlite3.connect(database)) as other:
        while not other.execute("SELECT * FROM tool_health").fetchall():  # saved now and then
            time.sleep(0.05)
    database.unlink()
    answer(first)
    assert f"{database}: was removed or replaced" in first.communicate(timeout=20)[1]
    assert first.returncode == 3


def test_damaged_rows_are_shown_or_named(start, database, tmp_path):
    def insert(*row):
        with Repository(tmp_path, database) as repository:
            text = "INSERT INTO tool_health VALUES (?, ?, 1, CAST(? AS TEXT), NULL, '')"
            repository.db.execute(text, row)

    insert("read_file", 7, b"caf\xe9")
    process = start()
    assert answer(process, HEALTH)["content"]["tools"][0]["last_error"] == "caf\\xe9"
    process.communicate()
    insert("embed_text", "many", None)
    errors = start().communicate(timeout=20)[1]
    assert f"{database}: correct or delete these rows" in errors and "'embed_text'" in errors
    database.write_text("Not a database at all." * 100)
    process = start()
    told = f"quillet: {database}: file is not a database\n"
    assert (process.communicate(timeout=20)[1], process.returncode) == (told, 2)


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
