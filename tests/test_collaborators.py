"""How the module finds the daemon's objects; test_documents.py has where it looks."""

import re
import sys
from unittest import mock

import pytest
import quillet.utils.process
from conftest import call
from quillet.tool_handlers import health


@pytest.fixture
def nowhere(monkeypatch):
    """The daemon has lost its modules, and nothing is set on this one."""
    monkeypatch.delattr(health, "TOOLS")
    monkeypatch.delattr(health, "is_slow_call")
    for module in ("config", "tool_registry", "tool_schemas"):
        monkeypatch.setitem(sys.modules, f"quillet.{module}", None)


class Interrupted:
    def __getattr__(self, name):
        raise KeyboardInterrupt


def says(name, module):
    """What one is told to set, and why."""
    missing = rf"No module named 'quillet\.{module}'|import of quillet\.{module} halted; .*"
    return rf"^set quillet\.tool_handlers\.health\.{name}; importing it failed: ({missing})$"


def test_what_is_nowhere_is_named(repository, tracker, nowhere, monkeypatch, caplog):
    t = tracker()
    assert t.get_health_summary() == t._usage_rows("a") == []  # there is nothing to ask about
    with mock.patch.dict(sys.modules, {"quillet.tool_schemas": Interrupted()}):
        with pytest.raises(KeyboardInterrupt):
            t.get_health_summary()
    with pytest.raises(ImportError, match=says("ToolsConfig", "config")):
        health.ToolHealthTracker(repository)
    t.record_success("a")
    call(t)
    for question in (t.get_health_summary, lambda: t._usage_rows("a")):
        with pytest.raises(ImportError, match=says("is_slow_call", "tool_schemas")):
            question()
    assert t._usage_rows("b") == []
    t.flush()
    # An unfound registry is not an empty one: nothing is deleted, nothing dropped.
    with pytest.raises(ImportError, match=says("TOOLS", "tool_registry")):
        tracker()
    [warning] = caplog.messages
    assert re.search("tool health history: " + says("TOOLS", "tool_registry")[1:], warning)
    monkeypatch.setitem(sys.modules, "quillet.tool_registry", object())
    with pytest.raises(
        ImportError, match="set .*TOOLS; .* 'object' object has no attribute 'TOOLS'$"
    ):
        health._known("a", None)
    assert len(repository.db.fetchall("SELECT * FROM tool_health")) == 1


def test_a_registry_that_lacks_a_module_of_its_own_says_which(tmp_path, nowhere, monkeypatch):
    (tmp_path / "tool_registry.py").write_text("import quillet.something_else")
    monkeypatch.setattr(quillet, "__path__", [str(tmp_path)])
    monkeypatch.delitem(sys.modules, "quillet.tool_registry")
    with pytest.raises(ImportError, match=says("TOOLS", "something_else")) as raised:
        health._known("a", None)
    assert raised.value.__cause__.name == "quillet.something_else"
    (tmp_path / "tool_registry.py").write_text("1 / 0  # no AttributeError hides it")
    with pytest.raises(ZeroDivisionError):
        health.TOOLS


def test_the_daemons_objects_are_attributes_of_the_module(monkeypatch):
    assert health.thread_census is quillet.utils.process.thread_census
    other = mock.patch(f"{health.__name__}.get_timing_collector", lambda: 1 / 0)
    with other, pytest.raises(ZeroDivisionError):
        health.handle_get_tool_performance_stats()
    assert "get_timing_collector" not in vars(health)
    monkeypatch.setitem(sys.modules, "quillet.utils.process", None)
    assert not hasattr(health, "thread_census") and not hasattr(health, "weather")
    monkeypatch.delattr(health, "__name__")
    with pytest.raises(AttributeError, match="module 'quillet.*' has no attribute 'weather'"):
        health.weather
