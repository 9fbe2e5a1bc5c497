"""The documents' code runs as it stands and does what they say; so does the example's daemon."""

import contextlib
import doctest
import importlib.util
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path
from types import SimpleNamespace
from unittest import mock

import pytest
from conftest import Stored, call
from documents import ROOT, snippets
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

GUIDE = "docs/integration.md"
DAEMON = """
import asyncio, runpy, threading, harbord
harbord.FLUSH_PERIOD_S = 0.01
def hang(_):
    print("begun", flush=True)
    threading.Event().wait()
def odd(_):
    raise OSError("caf\\udce9")
harbord.TOOLS |= {"hang": harbord.Tool(hang), "odd": harbord.Tool(odd)}
CHANGE
asyncio.run(harbord.main("db"))
"""


def guide():
    return (ROOT / GUIDE).read_text(encoding="utf-8")


@pytest.fixture
def plain(tmp_path, monkeypatch):
    """An empty folder, with the plain module and the example's daemon to be imported there."""
    place = tmp_path / "plain"
    place.mkdir()
    (place / Path(health.__file__).name).symlink_to(health.__file__)
    path = [str(place), str(ROOT / "examples" / "embedding")]
    monkeypatch.setattr(sys, "path", path + sys.path)
    monkeypatch.setenv("PYTHONPATH", ":".join(path))
    (tmp_path / "work").mkdir()
    monkeypatch.chdir(tmp_path / "work")
    yield
    for name in ("health", "harbord"):
        sys.modules.pop(name, None)


@pytest.mark.filterwarnings("ignore:coroutine")
def test_the_guide_is_one_session(plain):
    text = "\n".join(snippets(GUIDE, "pycon"))
    session = doctest.DocTestParser().get_doctest(text, {}, "session", GUIDE, 0)
    doctest.DebugRunner(optionflags=doctest.ELLIPSIS).run(session)
    import harbord

    [schema] = snippets(GUIDE, "sql")
    assert schema.split() == harbord.SCHEMA.split()


def test_the_guide_says_where_the_module_looks():
    rows = re.findall(r"^\| `([\w.]*health)` \| `([\w.]+)` \|$", guide(), re.M)
    assert len(rows) == 4
    for name, home in rows:
        found = SimpleNamespace(
            ToolsConfig=lambda: ToolsConfig(7),
            TOOLS=SimpleNamespace(get=lambda tool: 0),
            is_slow_call=lambda tool, action: "slow",
        )
        modules = (home.replace("config", module) for module in ("tool_registry", "tool_schemas"))
        packages = "mydaemon", "company", "company.mydaemon"
        with mock.patch.dict(sys.modules, dict.fromkeys([home, *modules, *packages], found)):
            spec = importlib.util.spec_from_file_location(name, health.__file__)
            module = importlib.util.module_from_spec(spec)
            spec.loader.exec_module(module)
            t = module.ToolHealthTracker(Stored([("a", 1, 2, "e", None, None)]))
            call(t)
            [record] = t.get_health_summary()
        assert (t.limits.disable_after_errors, record["error_count"]) == (7, 2)
        assert record["usage"][0]["slow"] is True
        assert module.__name__ == module.logger.name == name


@pytest.mark.filterwarnings("ignore:coroutine")
def test_databases_do_what_the_guide_says(plain, caplog):
    import harbord

    def with_rows(path):
        database = harbord.Database(path)
        database._connection.row_factory = sqlite3.Row
        return database

    makers = (
        *(harbord.Database, with_rows, sqlite3.connect),
        partial(sqlite3.connect, check_same_thread=False),
        *(lambda path: mock.AsyncMock(), lambda path: object()),
    )
    table = re.findall(r"^\| (.*?) \| (\w+) \| (\w+) \| (yes|no) \|$", guide(), re.M)
    for (path, *said), make in zip(table, makers, strict=True):
        stored, repository = harbord.Database(path), harbord.Repository(make(path))
        caplog.clear()
        tracker = harbord.health.ToolHealthTracker(repository, ToolsConfig())
        start = "warns" if caplog.records else "works"
        call(tracker)
        tracker.record_success("upper")
        with ThreadPoolExecutor(1) as threads:
            flush = threads.submit(tracker.flush)
        flushed = type(flush.exception()).__name__ if flush.exception() else str(flush.result())
        stored = "yes" if stored.fetchall("SELECT * FROM schema_info") else "no"
        assert said == [start, flushed, stored], path


def test_the_readme(tmp_path):
    (tmp_path / ".venv").symlink_to(Path(sys.prefix))
    (tmp_path / "notes.txt").write_text("the cooldown\n")
    [program], (told, printed, _) = snippets("README.md", "python"), snippets("README.md", "text")
    run = subprocess.run(
        [sys.executable, "-c", program], cwd=tmp_path, capture_output=True, text=True
    )
    assert run.stdout == printed, run.stderr
    shutil.rmtree(tmp_path / ".quillet")
    [play] = [block for block in snippets("README.md", "sh") if "quillet play" in block]
    run = subprocess.run(play, shell=True, cwd=tmp_path, capture_output=True, text=True)
    moments, spaces = re.compile(r"\d+"), re.compile(r"(\\ )+")
    pattern = spaces.sub(r"\\s+", moments.sub(r"\\d+", re.escape(told.strip())))
    assert re.search(pattern, run.stdout), run.stderr
    needed = re.search(r"Debian 12's packages (.*?);", (ROOT / "README.md").read_text(), re.S)[1]
    packages = set(re.split(r",\s+|\s+and\s+", needed))
    assert packages <= set((ROOT / "packages.txt").read_text().split())


@contextlib.contextmanager
def start_daemon(change="", lines=subprocess.PIPE):
    command = [sys.executable, "-c", DAEMON.replace("CHANGE", change)]
    pipes = dict.fromkeys(("stdout", "stderr"), subprocess.PIPE)
    with subprocess.Popen(command, stdin=lines, **pipes, text=True) as daemon:
        try:
            yield daemon
        finally:
            daemon.kill()


def test_the_example_daemon_saves_now_and_then_and_at_its_end(plain):
    def ask(call):
        daemon.stdin.write(call + "\n")
        daemon.stdin.flush()
        return daemon.stdout.readline()

    with start_daemon() as daemon:
        assert [ask("upper moin"), ask("fly away")] == ["MOIN\n", "no tool fly\n"]
        with start_daemon() as second:
            assert second.communicate() == ("", "db is in use by another process\n")
        assert second.returncode == 1
        db = sqlite3.connect("db", isolation_level=None)
        db.execute("ALTER TABLE tool_health RENAME TO moved")
        assert ask("upper x") == "X\n"
        assert daemon.stderr.readline().startswith("Could not save the tools' health this time: ")
        db.execute("ALTER TABLE moved RENAME TO tool_health")
        while db.execute("SELECT call_count FROM tool_health").fetchall() != [(2,)]:
            assert daemon.poll() is None
        assert ask("hang") == "begun\n"
        daemon.send_signal(signal.SIGTERM)
        assert daemon.wait(timeout=30) == 0
    rows = "SELECT tool_name, call_count, disabled_at IS NULL FROM tool_health"
    assert db.execute(rows).fetchall() == [("upper", 2, 1)]
    usage = str([*db.iterdump()])
    assert '"tool":"hang","action":null,"outcome":"cancelled"' in usage
    assert '"calls":2,"timed_calls":2' in usage

    Path("calls").write_text("odd\nodd\nodd\nupper x")
    with open("calls") as calls, start_daemon(lines=calls) as daemon:
        odd = r"caf\udce9"  # which SQLite takes as it stands here
        said = f"odd failed: {odd}\n" * 2 + f"odd is disabled: {odd!r}\nX\n"
        assert daemon.communicate() == (said, "")
    assert sorted(db.execute(rows)) == [("odd", 2, 0), ("upper", 3, 1)]
    db.close()


def test_the_example_daemon_says_why_it_ends(plain):
    for change, said in (
        ("runpy.run_path(harbord.__file__, run_name='__main__')", "usage: harbord.py DATABASE: "),
        ("harbord.health.TOOLS = {}", "no tools: a tracker would delete the history of all\n"),
        ("harbord.SCHEMA = ''", "sqlite3.OperationalError: no such table: tool_health\n"),
    ):
        with start_daemon(change) as daemon:
            _, error = daemon.communicate("upper x\n")
        assert (daemon.returncode, said in error) == (1, True), error
