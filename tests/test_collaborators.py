"""How the module finds the daemon's objects, under each name that it can be loaded by."""

import subprocess
import sys
from pathlib import Path
from unittest import mock

import pytest
import quillet.utils.process
from quillet.tool_handlers import health

DAEMON = {
    "config": "class ToolsConfig: disable_after_errors = 1; disable_cooldown_s = 1.0",
    # A registry imports the handlers, which import the module, which needs the registry.
    "tool_registry": "import importlib; importlib.import_module({!r}).logger\n"
    "class TOOLS: get = lambda name: 0",
    "tool_schemas": "is_slow_call = lambda tool, action: 'slow'",
}
PROGRAM = """
import importlib, sys
_, path, registry, name = sys.argv
sys.path.insert(0, path)
importlib.import_module(registry)
health = importlib.import_module(name)
class Repository:
    class db:
        fetchall = lambda sql: [("a", 1, 2, "e", None, None)]
        fetchone = lambda sql, parameters: None
t = health.ToolHealthTracker(Repository)
t.record_call("a", None, "ok", alias_hit=False, duration_ms=1)
print(health.__name__, health.logger.name, t._state["a"].error_count, t.cooldown_s,
      t.get_health_summary()[0]["usage"][0]["slow"])
"""


@pytest.mark.parametrize(
    ("package", "name"),
    [
        ("", "health"),
        ("", "tool_handlers.health"),
        ("some.daemon.", "some.daemon.tool_handlers.health"),
    ],
)
def test_it_is_found_relative_to_the_module(tmp_path, package, name):
    place = tmp_path.joinpath(*name.split("."))
    place.parent.mkdir(parents=True, exist_ok=True)
    (place.parent / Path(health.__file__).name).symlink_to(health.__file__)
    for module, text in DAEMON.items():
        path = tmp_path.joinpath(*(package + module).split("."))
        path.with_suffix(".py").write_text(text.format(name))
    run = subprocess.run(
        [sys.executable, "-Ic", PROGRAM, tmp_path, package + "tool_registry", name],
        capture_output=True,
        text=True,
    )
    assert run.stdout.split() == [name, name, "2", "1.0", "True"], run.stderr


@pytest.fixture
def nowhere(monkeypatch):
    """The daemon has lost its modules, and nothing is set on this one."""
    monkeypatch.delattr(health, "TOOLS")
    monkeypatch.delattr(health, "is_slow_call")
    for module in ("config", "tool_registry", "tool_schemas"):
        monkeypatch.setitem(sys.modules, f"quillet.{module}", None)


def test_what_is_nowhere_is_named(repository, db, tracker, nowhere, monkeypatch, caplog):
    t = tracker()
    with pytest.raises(ImportError, match="cannot import name 'ToolsConfig' from 'quillet.config'"):
        health.ToolHealthTracker(repository)
    t.record_success("a")
    t.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    with pytest.raises(ImportError, match="'is_slow_call' from 'quillet.tool_schemas'"):
        t.get_health_summary()
    t.flush()
    # An unfound registry is not an empty one: nothing is deleted, nothing dropped.
    with pytest.raises(ImportError, match="'TOOLS' from 'quillet.tool_registry'"):
        tracker()
    assert "'TOOLS' from 'quillet.tool_registry'" in caplog.text
    monkeypatch.setitem(sys.modules, "quillet.tool_registry", object())
    with pytest.raises(ImportError, match="'TOOLS'"):
        health._known("a", None)
    assert len(db.fetchall("SELECT * FROM tool_health")) == 1


def test_a_registry_that_lacks_a_module_of_its_own_says_which(tmp_path, nowhere, monkeypatch):
    (tmp_path / "tool_registry.py").write_text("import quillet.something_else")
    monkeypatch.setattr(quillet, "__path__", [str(tmp_path)])
    monkeypatch.delitem(sys.modules, "quillet.tool_registry")
    with pytest.raises(ModuleNotFoundError, match="^No module named 'quillet.something_else'"):
        health._known("a", None)


def test_the_daemons_objects_are_attributes_of_the_module(monkeypatch):
    assert health.thread_census is quillet.utils.process.thread_census
    with mock.patch(f"{health.__name__}.get_timing_collector", lambda: 1 / 0):
        with pytest.raises(ZeroDivisionError):
            health.handle_get_tool_performance_stats()
    assert "get_timing_collector" not in vars(health)
    monkeypatch.setitem(sys.modules, "quillet.utils.process", None)
    assert not hasattr(health, "thread_census") and not hasattr(health, "weather")
