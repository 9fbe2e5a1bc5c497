"""Calls that find the lock taken wait for it as for a lock of Python's."""

import os
import signal
import sys
import threading

import pytest
from conftest import call
from quillet.tool_handlers import health


class Interrupt(Exception):
    pass


@pytest.fixture
def signalled():
    """Sends this process a signal soon, and lets `handler` handle it."""
    before = signal.getsignal(signal.SIGUSR1)

    def signalled(handler):
        signal.signal(signal.SIGUSR1, lambda *_: handler())
        threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGUSR1)).start()

    yield signalled
    signal.signal(signal.SIGUSR1, before)


@pytest.fixture
def hold(monkeypatch):
    """Has another thread hold a tracker's lock until the event that this returns is set."""
    holders = []

    def hold(tracker):
        held, over = threading.Event(), threading.Event()

        def is_slow_call(tool, action):
            held.set()
            return over.wait(5)

        monkeypatch.setattr(health, "is_slow_call", is_slow_call)
        rows = []
        work = lambda: rows.extend(tracker.get_health_summary()[0]["usage"])  # noqa: E731
        holders.append((threading.Thread(target=work), rows))
        holders[-1][0].start()
        held.wait()
        return over

    yield hold
    for thread, rows in holders:
        thread.join()
        assert rows[0]["slow"] is True  # it was let go of, and did not give up


@pytest.mark.parametrize("trace", [None, lambda *_: None])
def test_a_waiting_call_serves_signals(tracker, hold, signalled, monkeypatch, trace):
    """Also while the holder is traced: then it runs on only once the signal has been served."""
    t = tracker()
    call(t)
    threading.settrace(trace)
    over = hold(t)
    threading.settrace(sys.gettrace())
    signalled(over.set)
    t.record_success("a")
    assert t._state["a"].call_count == 1


def test_a_call_that_is_interrupted_has_not_happened(tracker, hold, signalled):
    def interrupt():
        raise Interrupt

    t = tracker()
    call(t)
    over = hold(t)
    for operation in (lambda: t.record_success("a"), t.flush, t.get_health_summary):
        signalled(interrupt)
        with pytest.raises(Interrupt):
            operation()
    over.set()
    assert t._state == {} and t.has_unsaved_changes


@pytest.mark.parametrize("write", ["executemany", "execute"])
def test_a_failed_write_is_marked_whatever_interrupts(tracker, repository, hold, signalled, write):
    def fail(*_):
        over = hold(t)
        threading.Timer(0.3, over.set).start()
        signalled(interrupt)
        raise OSError("no luck")

    def interrupt():
        raise Interrupt

    t = tracker()
    call(t)
    t.record_success("a")
    setattr(repository.db, write, fail)
    with pytest.raises(Interrupt) as raised:
        t.flush()
    assert isinstance(raised.value.__context__, OSError)
    assert (t._dirty, t._usage_dirty) == ({"a"} if write == "executemany" else set(), True)
