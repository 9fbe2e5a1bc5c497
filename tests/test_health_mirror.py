"""The tool_health table: what is read at a start, and what a flush writes."""

import logging

import pytest
from conftest import Stored, call
from quillet.tool_handlers import health

UPSERT = f"""INSERT INTO tool_health ({health._TOOL_HEALTH_COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at"""
DELETE = "DELETE FROM tool_health WHERE tool_name = ?"
SELECT = f"SELECT {health._TOOL_HEALTH_COLUMNS} FROM tool_health"


def test_a_flush_is_one_write_of_the_changed_rows_by_name(tracker, repository):
    t = tracker()
    for tool in ("b", "\U0001f600", "a", "\ud800", "a"):
        t.record_success(tool)
    repository.db.calls.clear()
    assert t._flush_health() == 4
    [(operation, sql, rows)] = repository.db.calls
    assert (operation, sql) == ("executemany", UPSERT)
    assert [row[:2] for row in rows] == [("a", 2), ("b", 1), ("\ud800", 1), ("\U0001f600", 1)]
    assert rows[0][2:] == (0, None, None, health._sqlite_time(t._state["a"].updated_at))
    assert t.flush() == 0 and len(repository.db.calls) == 1


def test_rows_of_removed_tools_are_deleted(tracker, repository, db, daemon):
    t = tracker()
    for tool in ("a", "b", "c"):
        t.record_success(tool)
    t.flush()
    del daemon["a"], daemon["c"]
    repository.db.calls.clear()
    assert list(tracker()._state) == ["b"]
    assert repository.db.calls[:2] == [
        ("fetchall", SELECT), ("executemany", DELETE, [("a",), ("c",)])]  # fmt: skip
    assert [row[0] for row in db.fetchall(SELECT)] == ["b"]


@pytest.mark.parametrize("operation", ["fetchall", "executemany", "fetchone"])
def test_an_unreadable_history_is_logged_and_left_out(
    tracker, repository, daemon, caplog, operation
):
    t = tracker()
    t.record_success("a")
    t.record_success("b")
    call(t)
    t.flush()
    del daemon["b"]
    error = RuntimeError("no luck")
    repository.db.failures[operation] = error
    again = tracker()
    lost = ("health history", again._state) if operation != "fetchone" else (
        "usage counts", again._usage)  # fmt: skip
    assert lost[1] == {} and len(again._state) + len(again._usage) == 1
    [record] = caplog.records
    assert (record.name, record.levelno) == (health.__name__, logging.WARNING)
    assert (record.msg, record.args) == (f"Could not read the tool {lost[0]}: %s", (error,))
    repository.db.failures[operation] = KeyboardInterrupt()
    with pytest.raises(KeyboardInterrupt):
        tracker()


@pytest.mark.parametrize(
    ("calls", "expected"),
    [(None, 0), ("", 0), (0, 0), (0.0, 0), (7, 7), (-3, -3), (2.9, 2), (-2.9, -2), (" +1_0 ", 10),
     (2**63 - 1, 2**63 - 1)],  # fmt: skip
)
def test_stored_values_are_read(calls, expected):
    t = health.ToolHealthTracker(Stored([("a", calls, None, b"\xff", "not a time", None)]))
    state = health._ToolState(expected, 0, b"\xff", None, 0.0)
    assert t._state == {"a": state}
    t.record_success("a")
    assert t._state["a"].call_count == min(expected + 1, 2**63 - 1)


@pytest.mark.parametrize(
    ("row", "error"),
    [
        (("c", "1.5", 0, None, None, None), ValueError),
        (("c", 2**63, 0, None, None, None), OverflowError),
        (("c", 0, 0, None, None, b"x"), TypeError),
        (("c", 0, 0, object(), None, None), TypeError),
        (("c", 0, 0), IndexError),
    ],
)
def test_stored_values_that_do_not_convert_are_errors(tracker, row, error, caplog):
    with pytest.raises(error):
        health.ToolHealthTracker(Stored([("a", 1, 1, "e", None, None), row]))
    t = tracker()
    t._repo.db.fetchall = lambda sql: [("a", 1, 1, "e", None, None), row]
    with pytest.raises(error):
        t._load()
    assert list(t._state) == ["a"] and not caplog.records
    t.record_success("a")  # the lock is free


def test_timestamp_functions():
    assert health._sqlite_time(None) is None
    assert health._sqlite_time(0) == "1970-01-01 00:00:00"
    assert [health._epoch(value) for value in (None, "", 0, "1970-01-01 00:00:00", "\udc80")] == [
        None, None, None, 0.0, None]  # fmt: skip
    for function, wrong, error in (
        (health._sqlite_time, (1e12, float("nan"), 10**400), ValueError),
        (health._epoch, (5, 1.5, b"2023-11-14 22:13:20"), TypeError),
    ):
        for value in wrong:
            with pytest.raises(error):
                function(value)
