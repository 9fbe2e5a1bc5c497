"""The usage document: what is read at a start, and what a flush writes."""

import json
import re
from functools import partial
from itertools import product
from types import SimpleNamespace
from unittest import mock

import pytest
from conftest import MEMBERS, Stored, call
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from quillet.tool_handlers import health

SELECT = "SELECT value FROM schema_info WHERE key = ?"
REPLACE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"


def element(tool="a", action=None, outcome="ok", alias_hit=False, calls=1, timed=0, total=0.0):
    return dict(zip(MEMBERS, (tool, action, outcome, alias_hit, calls, timed, total)))


@pytest.fixture
def document(db):
    """Reads the stored document, or stores one."""

    def access(value=...):
        if value is not ...:
            db.execute(REPLACE, (health.TOOL_USAGE_KEY, value))
        return (db.fetchone(SELECT, (health.TOOL_USAGE_KEY,)) or [None])[0]

    return access


# As text is stored as UTF-8, a surrogate reaches the document only as an escape.
texts = st.text(st.characters(blacklist_categories=()))
counts = st.integers(-(2**63), 2**63 - 1)
totals = st.floats() | st.integers(-8000, 8000).map(lambda n: n / 16) | st.floats(-1e17, 1e17)
usage = st.builds(element, texts, st.none() | texts, texts, st.booleans(), counts, counts, totals)


compact = partial(json.dumps, separators=(",", ":"))


@pytest.fixture
def any_tool(monkeypatch):
    """A registry that has every tool and action."""
    anything = SimpleNamespace(get=lambda name: anything, action=lambda name: name)
    monkeypatch.setattr(health, "TOOLS", anything)


def read(document):
    return health.ToolHealthTracker(Stored(document=document))


@settings(max_examples=300, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(st.lists(usage, max_size=5, unique_by=lambda row: json.dumps(list(row.values())[:4])))
def test_the_document_is_read_and_written_as_by_the_json_library(any_tool, rows):
    by_json = read(compact([{**row, "more": None} for row in rows]))  # left to the interpreter
    t = read(compact(rows))
    assert repr(t._usage) == repr(by_json._usage)
    expected = {tuple(row.values())[:4]: row for row in json.loads(json.dumps(rows))}
    for key in [*expected, ("a", None, "ok", False)]:
        call(t, *key)  # under the same key as what was read
        expected.setdefault(key, element(calls=0))
        expected[key]["calls"] = min(expected[key]["calls"] + 1, 2**63 - 1)
    assert t.flush() == len(expected)
    written = [{**row, "total_ms": round(row["total_ms"], 3)} for row in expected.values()]
    assert t._repo.document == compact(written)
    with mock.patch("json.loads") as loads:
        read(t._repo.document)
    assert not loads.called or re.search(r"\\ud[89ab]|NaN|Infinity", t._repo.document)


def test_an_edited_document_is_read_as_by_the_json_library(any_tool):
    text = compact([element("\U0001f600", "x", total=3.5)])
    for at, new in product(range(len(text)), ("", "0", "-", ".", '"', "u", "}", "]", ",", "\0")):
        for edited in (text[:at], text[:at] + new + text[at:], text[:at] + new + text[at + 1 :]):
            try:
                by_json = read(compact([{**row, "more": None} for row in json.loads(edited)]))
                expected = repr(by_json._usage)
            except (ValueError, TypeError):
                expected = "{}"
            assert repr(read(edited)._usage) == expected, edited


def test_a_flush_is_one_write_of_every_count(tracker, repository, document):
    t = tracker()
    call(t, duration_ms=41.87650000001)
    call(t, "b", outcome="\ud800")
    repository.db.calls.clear()
    assert t._flush_usage() == 2
    assert repository.db.calls == [("execute", REPLACE, (health.TOOL_USAGE_KEY, document()))]
    assert t._usage[("a", None, "ok", False)].total_ms == 41.87650000001
    assert t._flush_usage() == 0 and len(repository.db.calls) == 1


@pytest.mark.parametrize("stored", [None, b"[]", "[]", " {} ", '""'])
def test_an_empty_document_loads_nothing(tracker, document, caplog, stored):
    if stored is not None:
        document(stored)
    t = tracker()
    assert (t._usage, t.has_unsaved_changes, t.flush()) == ({}, False, 0)
    assert not caplog.records


UNREADABLE = [
    *("", "5", "null", '{"a": 1}', '"text"', "[5]", "[[]]", "[" * 100_000, "[]]"),
    *([{**element(), "action": wrong}] for wrong in ([], {})),
    *([element(calls=wrong)] for wrong in (None, "1.5", [], 2**63, float("inf"))),
    *([element(total=wrong)] for wrong in (None, "1,5", 10**400)),
    [element(), {key: value for key, value in element().items() if key != "timed_calls"}],
]


@pytest.mark.parametrize("stored", UNREADABLE)
def test_an_unreadable_document_is_logged_and_left_out(tracker, document, caplog, stored):
    text = document(stored if isinstance(stored, str) else json.dumps(stored))
    t = tracker()
    assert (t._usage, t.has_unsaved_changes) == ({}, False)
    [record] = caplog.records
    assert record.msg == "Could not read the tool usage counts: %s"
    assert isinstance(record.args[0], Exception)
    assert document() == text
    call(t)
    assert t.flush() == 1 and len(json.loads(document())) == 1


def test_members_are_converted_as_python_does(tracker, document, daemon):
    daemon.update({"5": daemon["b"], "True": daemon["b"]})
    document(json.dumps([
        element(5, outcome=2.5, alias_hit="no", calls=2.9, timed=" 7 ", total="1.5"),
        element(True, outcome=None, alias_hit=0, calls=-2.9, timed="1_000", total=True),
        {**element("b", alias_hit=[], calls=True, timed=False, total=" -INFINITY "), "more": 1},
    ]))  # fmt: skip
    t = tracker()
    assert t._usage == {
        ("5", None, "2.5", True): health._Usage(2, 7, 1.5),
        ("True", None, "None", False): health._Usage(-2, 1000, 1.0),
        ("b", None, "ok", False): health._Usage(1, 0, float("-inf")),
    }
    assert not t.has_unsaved_changes


def test_what_the_registry_no_longer_has_is_dropped(tracker, document):
    gone = [element("gone"), element("a", "gone"), element("b", "x"), element("a", 5), element([])]
    kept = [element("a", "x"), element("b", calls=2), element("a"), element("b", calls=3)]
    document(json.dumps(gone + kept))
    t = tracker()
    assert [(key[:2], usage.calls) for key, usage in t._usage.items()] == [
        (("a", "x"), 1), (("b", None), 3), (("a", None), 1)]  # fmt: skip
    assert t.has_unsaved_changes and t.flush() == 3
    assert not tracker().has_unsaved_changes  # a repeated key alone changes nothing
    for row in gone:
        document(json.dumps([row]))
        t = tracker()
        assert t.has_unsaved_changes and t.flush() == 0
        assert document() == "[]"
