import os
import signal
from unittest import mock

import pytest
from quillet.config import ToolsConfig
from quillet.repository import Repository
from quillet.tool_handlers import health

# Whoever runs the tests may ignore these, as nohup does, and a daemon that is started would inherit
# that. A handler it does not.
for number in (signal.SIGHUP, signal.SIGINT):
    if signal.getsignal(number) is signal.SIG_IGN:
        signal.signal(number, lambda *_: None)

MEMBERS = ("tool", "action", "outcome", "alias_hit", "calls", "timed_calls", "total_ms")


class Spec:
    def __init__(self, *actions):
        self.actions = actions

    def action(self, name):
        return 0 if isinstance(name, str) and name in self.actions else None


class Stored:
    """A repository and its database with rows and a document; a write is whole or not at all."""

    def __init__(self, rows=(), document=None):
        self.rows, self.document, self.db = rows, document, self

    def fetchall(self, sql):
        return self.rows

    def fetchone(self, sql, parameters):
        return None if self.document is None else (self.document,)

    def execute(self, sql, parameters):
        self.document = parameters[1]

    def executemany(self, sql, rows):
        names = {row[0] for row in rows}
        kept = [row for row in self.rows if row[0] not in names]
        self.rows = kept if sql.startswith("DELETE") else [*kept, *rows]


class SpyRepository:
    """A repository and its database, with its calls kept and failures on demand."""

    def __init__(self, repository):
        self.db, self.spied, self.calls, self.failures = self, repository.db, [], {}

    def __getattr__(self, operation):
        def call(sql, *parameters):
            self.calls.append((operation, sql, *parameters))
            if operation in self.failures:
                raise self.failures[operation]
            return getattr(self.spied, operation)(sql, *parameters)

        return call


@pytest.fixture(scope="session", autouse=True)
def state_folder(tmp_path_factory):
    """Keeps the histories of all served folders out of the state folder of who runs the tests."""
    with mock.patch.dict(os.environ, XDG_STATE_HOME=str(tmp_path_factory.mktemp("state"))):
        yield


@pytest.fixture
def repository(tmp_path):
    with Repository(tmp_path, tmp_path / "db") as repository:
        yield SpyRepository(repository)


@pytest.fixture
def tracker(repository):
    """Makes trackers over the same repository: each call is a start of the daemon."""

    def start(errors=3, cooldown=1000.0):
        return health.ToolHealthTracker(repository, ToolsConfig(errors, cooldown))

    return start


@pytest.fixture(autouse=True)
def daemon(monkeypatch):
    monkeypatch.setitem(vars(health), "TOOLS", {"a": Spec("x"), "b": Spec()})
    monkeypatch.setitem(vars(health), "is_slow_call", lambda tool, action: action == "x")


def call(tracker, tool="a", action=None, outcome="ok", alias_hit=False, duration_ms=None):
    tracker.record_call(tool, action, outcome, alias_hit=alias_hit, duration_ms=duration_ms)


def pytest_report_header():
    return f"the module under test: {health.__file__}"
