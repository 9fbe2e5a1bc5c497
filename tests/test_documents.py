"""The documents' code runs as it stands and does what they say; so does the example's daemon."""

import doctest
import importlib.util
import json
import re
import signal
import sqlite3
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from functools import partial
from pathlib import Path
from unittest import mock

import pytest
from conftest import Stored, call
from documents import ROOT, snippets
from quillet.client import Client
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


def table(row):
    """Those rows of the guide's tables that are of this form."""
    return re.findall(row, (ROOT / GUIDE).read_text(encoding="utf-8"), re.M)


HANGING = """
import json, sys
for line in sys.stdin:
    if "tools/list" in line:
        tools = {"tools": [{"name": "read_text_file"}]}
        print(json.dumps({"id": json.loads(line)["id"], "result": tools}), flush=True)
"""


@pytest.fixture
def harbord(tmp_path, monkeypatch):
    """The example's daemon, imported in a folder that has nothing but the plain module."""
    (tmp_path / Path(health.__file__).name).symlink_to(health.__file__)
    path = [str(tmp_path), str(ROOT / "examples/embedding")]
    monkeypatch.setattr(sys, "path", path + sys.path)
    monkeypatch.setenv("PYTHONPATH", ":".join(path))
    monkeypatch.chdir(tmp_path)
    yield importlib.import_module("harbord")
    for name in ("health", "harbord"):
        sys.modules.pop(name, None)


@pytest.mark.filterwarnings("ignore:coroutine")
def test_the_guide_is_one_session(harbord):
    text = "\n".join(snippets(GUIDE, "pycon"))
    session = doctest.DocTestParser().get_doctest(text, {}, "session", GUIDE, 0)
    doctest.DebugRunner(optionflags=doctest.ELLIPSIS).run(session)
    [schema] = snippets(GUIDE, "sql")
    assert schema.split() == harbord.SCHEMA.split()


def test_the_guide_says_where_the_module_looks():
    rows = table(r"^\| `([\w.]*health)` \| `([\w.]+)` \|$")
    assert len(rows) == 4
    for name, home in rows:
        found = mock.Mock(**{"ToolsConfig.return_value": 7, "is_slow_call.return_value": "slow"})
        places = [home.replace("config", m) for m in ("config", "tool_registry", "tool_schemas")]
        places += "mydaemon", "company", "company.mydaemon"
        with mock.patch.dict(sys.modules, dict.fromkeys(places, found)):
            spec = importlib.util.spec_from_file_location(name, health.__file__)
            module = importlib.util.module_from_spec(spec)
            spec.loader.exec_module(module)
            t = module.ToolHealthTracker(Stored([("a", 1, 2, "e", None, None)]))
            call(t)
            [record] = t.get_health_summary()
        assert (t.limits, record["error_count"], record["usage"][0]["slow"]) == (7, 2, True)
        assert module.__name__ == module.logger.name == name


@pytest.mark.filterwarnings("ignore:coroutine")
def test_databases_do_what_the_guide_says(harbord, caplog):
    def with_rows(path):
        database = harbord.Database(path)
        database._connection.row_factory = sqlite3.Row
        return database

    shared = partial(sqlite3.connect, check_same_thread=False)
    makers = [harbord.Database, with_rows, sqlite3.connect, shared]
    makers += lambda path: mock.AsyncMock(), lambda path: object()
    rows = table(r"^\| (.*?) \| (\w+) \| (\w+) \| (yes|no) \|$")
    for (path, *said), make in zip(rows, makers, strict=True):
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
    [code], (_, told) = snippets("README.md", "python"), snippets("README.md", "text")
    assert code == (ROOT / "examples/embedding/comeback.py").read_text()
    [servers] = snippets("README.md", "json")
    arguments = json.loads(servers)["mcpServers"]["files"]["args"]
    guard = arguments[: arguments.index("--") + 1]
    guard[2], guard[4] = tmp_path / "db", "0.02"
    guarded = [sys.executable, "-P", "-m", "quillet", *guard, sys.executable, "-c", HANGING]
    with Client(guarded, stderr=subprocess.DEVNULL) as client:
        client.ask("tools/list")
        *_, last = (client.call("read_text_file") for _ in range(6))
    form = re.sub(r"\d+", r"[\\d.]+", re.escape(told.strip()))
    assert re.fullmatch(form, last["content"][0]["text"])
    [play] = [block for block in snippets("README.md", "sh") if "quillet play" in block]
    (tmp_path / "examples").mkdir()
    shown = subprocess.check_output(play, shell=True, cwd=tmp_path, text=True)
    assert shown.startswith("  1  ok     count_lines(path='examples') ")
    needed = re.search(r"Debian 12's packages (.*?);", (ROOT / "README.md").read_text(), re.S)[1]
    assert {*re.split(r",\s+|\s+and\s+", needed)} <= {*(ROOT / "packages.txt").read_text().split()}


def command(change=""):
    return [sys.executable, "-c", DAEMON.replace("CHANGE", change)]


def serve(calls="", change=""):
    """How the example's daemon ends, what it answers to the calls of a file, and what it says."""
    Path("calls").write_text(calls)
    with open("calls") as lines:
        run = subprocess.run(command(change), stdin=lines, capture_output=True, text=True)
    return run.returncode, run.stdout, run.stderr


def test_the_example_daemon_saves_now_and_then_and_at_its_end(harbord):
    def ask(call):
        daemon.stdin.write(call + "\n")
        daemon.stdin.flush()
        return daemon.stdout.readline()

    pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
    with subprocess.Popen(command(), **pipes, text=True) as daemon, ExitStack() as end:
        end.callback(daemon.kill)
        assert [ask("upper moin"), ask("fly away")] == ["MOIN\n", "no tool fly\n"]
        assert serve() == (1, "", "db is in use by another process\n")
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

    odd = r"caf\udce9"  # which SQLite takes as it stands here
    answers = f"odd failed: {odd}\n" * 2 + f"odd is disabled: {odd!r}\nX\n"
    assert serve("odd\nodd\nodd\nupper x") == (0, answers, "")
    assert sorted(db.execute(rows)) == [("odd", 2, 0), ("upper", 3, 1)]
    db.close()


def test_the_example_daemon_says_why_it_ends(harbord):
    for change, said in (
        ("runpy.run_path(harbord.__file__, run_name='__main__')", "usage: harbord.py DATABASE: "),
        ("harbord.health.TOOLS = {}", "no tools: a tracker would delete the history of all\n"),
        ("harbord.SCHEMA = ''", "sqlite3.OperationalError: no such table: tool_health\n"),
    ):
        status, _, error = serve("upper x", change)
        assert (status, said in error) == (1, True), error
