"""Calls that find the lock taken wait for it as for a lock of Python's."""

import os
import signal
import subprocess
import sys
import threading
from glob import glob

import pytest
from conftest import call
from quillet.tool_handlers import health


@pytest.fixture
def signalled():
    """Sends this process a signal soon, which `handler` handles, then does what is to `follow`."""
    before, timers = signal.getsignal(signal.SIGUSR1), []

    def signalled(handler, follow=lambda: None):
        signal.signal(signal.SIGUSR1, lambda *_: handler())

        def send():
            os.kill(os.getpid(), signal.SIGUSR1)
            follow()

        timers.append(threading.Timer(0.15, send))
        timers[-1].start()

    yield signalled
    signal.signal(signal.SIGUSR1, signal.SIG_IGN)  # where a test fails, one is still to come
    for timer in timers:
        timer.join()
    signal.signal(signal.SIGUSR1, before)


@pytest.fixture
def hold(monkeypatch):
    """Has another thread hold a tracker's lock until the event that this returns is set."""
    held, over, threads, slow = threading.Event(), threading.Event(), [], []

    def is_slow_call(tool, action):
        held.set()
        slow.append(over.wait(60))
        return slow[0]

    def hold(tracker):
        monkeypatch.setattr(health, "is_slow_call", is_slow_call)
        threads.append(threading.Thread(target=tracker.get_health_summary))
        threads[0].start()
        held.wait()
        return over

    yield hold
    over.set()
    for thread in threads:
        thread.join()
        assert slow == [True]  # it was let go of, and did not give up


@pytest.mark.parametrize("trace", [None, lambda *_: None])
def test_a_waiting_call_serves_signals(tracker, hold, signalled, trace):
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
    t = tracker()
    call(t)
    over = hold(t)
    for operation in (lambda: t.record_success("a"), t.flush, t.get_health_summary):
        with pytest.raises(ZeroDivisionError):
            signalled(lambda: 1 / 0)
            operation()
    over.set()
    assert t._state == {} and t.has_unsaved_changes


@pytest.mark.parametrize("write", ["executemany", "execute"])
def test_a_failed_write_is_marked_whatever_is_going_on(tracker, repository, hold, signalled, write):
    """The lock is held, and a signal's handler raises meanwhile."""

    def fail(*_):
        signalled(lambda: 1 / 0, hold(t).set)
        raise OSError("no luck")

    t = tracker()
    call(t)
    t.record_success("a")
    setattr(repository.db, write, fail)
    with pytest.raises(ZeroDivisionError):
        t.flush()
    delattr(repository.db, write)
    assert (t._dirty, t._usage_dirty) == ({"a"} if write == "executemany" else set(), True)
    assert t.flush() == (2 if write == "executemany" else 1) and not t.has_unsaved_changes


# A wait until a time of a clock that is an hour ahead lasts as long as where it is set back.
@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the library hangs under the sanitizers")
def test_a_clock_that_is_set_holds_nothing_up():
    faked = {"FAKETIME": "+1h", "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
    [faked["LD_PRELOAD"]] = glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
    faked["PYTHONPATH"] = os.pathsep.join(sys.path)
    program = [sys.executable, "-m", "pytest", "-k", "serves_signals", __file__]
    subprocess.run(program, env=os.environ | faked, check=True)
