"""How long an event loop is held up while another thread flushes or sums up.

The interpreter's switch interval stays at its default: a thread of plain Python keeps the loop waiting for up to that.
The loop and the other thread have a CPU each: on a shared one the loop would wait for the kernel, whatever is locked.
"""

import asyncio
import gc
import os
import threading
import time
from collections.abc import Callable
from statistics import median
from typing import Any

from contenders import CONTENDERS, SilentDb, change_tools, change_usage, filled
from figures import Figure
from timing import interleaved

TOOLS = 1_000
ROUNDS = 31
CPUS = sorted(os.sched_getaffinity(0))
LEAST_MS = (
    0.1  # ratios take no delay for shorter: an idle loop's own wakes are as far apart as that
)
FLUSH = f"flush, {TOOLS * 10:,} usage keys and {TOOLS:,} tools"
DOCUMENT = f"flush, {TOOLS * 10:,} usage keys alone"
SUMMARY = f"summary of {TOOLS * 10:,} usage keys"


def figures() -> list[Figure]:
    """The delay that each piece of work adds to the longest one of an idle process."""
    measures = {"idle": lambda: _worst_lateness_ms(lambda: time.sleep(0.01))}
    for name in CONTENDERS:
        tracker = filled(name, SilentDb(), TOOLS)
        measures |= {
            f"{name} {subject}": measure for subject, measure in _measures(tracker).items()
        }
    gc.freeze()  # one tracker's objects are no part of the collections that the other's work sets off
    worst = {name: median(times) for name, times in interleaved(ROUNDS, measures).items()}
    document = _added(worst, DOCUMENT, at_least=10)
    limit = Figure(
        "the last, over a limit of 1 ms",
        document.component,
        1.0,
        "ms",
        document.component,
        at_most=1,
    )
    idle = Figure("nothing running (longest delay)", worst["idle"], worst["idle"], "ms", 1.0)
    return [idle, _added(worst, FLUSH), document, limit, _added(worst, SUMMARY)]


def _added(worst: dict[str, float], subject: str, at_least: float | None = None) -> Figure:
    component, plain = (worst[f"{name} {subject}"] - worst["idle"] for name in CONTENDERS)
    return Figure(
        subject, component, plain, "ms", max(plain, LEAST_MS) / max(component, LEAST_MS), at_least
    )


def _measures(tracker: Any) -> dict[str, Callable[[], float]]:
    def flush_all() -> float:
        change_tools(tracker, TOOLS)
        change_usage(tracker, TOOLS)
        return _worst_lateness_ms(tracker.flush)

    def flush_document() -> float:
        change_usage(tracker, TOOLS)
        return _worst_lateness_ms(tracker.flush)

    return {
        FLUSH: flush_all,
        DOCUMENT: flush_document,
        SUMMARY: lambda: _worst_lateness_ms(tracker.get_health_summary),
    }


def _worst_lateness_ms(work: Callable[[], object]) -> float:
    gc.collect()  # every piece of work starts as far from the next collection
    os.sched_setaffinity(0, CPUS[:1])
    try:
        return asyncio.run(_watch(work)) * 1e3
    finally:
        os.sched_setaffinity(0, CPUS)


async def _watch(work: Callable[[], object]) -> float:
    """The latest wake of a loop that wakes every millisecond, from shortly before the work to shortly after."""

    def padded() -> None:
        os.sched_setaffinity(0, CPUS[1:] or CPUS)
        time.sleep(0.005)
        work()
        time.sleep(0.005)

    thread = threading.Thread(
        target=padded
    )  # no executor: its wake at the end would delay the loop's last timer
    thread.start()
    await asyncio.sleep(0.002)
    worst = 0.0
    while thread.is_alive():
        due = time.perf_counter() + 0.001
        await asyncio.sleep(0.001)
        worst = max(worst, time.perf_counter() - due)
    thread.join()
    return worst
