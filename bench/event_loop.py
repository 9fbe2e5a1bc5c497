"""How much longer an event loop waits while another thread starts a tracker, flushes or sums up.

The loop wakes every millisecond, and each run gives its latest wake during the work, and its latest
one during a sleep that is as long and comes next. The table has the lower quartile of the former
over many runs, less that of the latter: a hold that the work brings is in every run, so in the
quiet ones too, and what else the machine does is not. 0 stands for a difference below it.

The interpreter's switch interval stays at its default, up to which plain Python keeps a loop
waiting. The loop and the other thread have a CPU each: on a shared one the loop would wait for the
kernel, whatever is locked.
"""

import asyncio
import gc
import os
import threading
import time
from collections.abc import Callable, Iterator
from functools import partial
from statistics import quantiles
from typing import Any

from contenders import CONTENDERS, MemoryDb, change_all, filled
from figures import Figure
from timing import interleaved, timed

CPUS = sorted(os.sched_getaffinity(0))
MEASURABLE_MS = 0.1  # an idle loop's own latest wakes are as far apart
LIMITS_MS = {"start": 1.0, "flush of everything": 1.0, "summary": 1.5}
Wakes = tuple[float, float]  # the latest of the work and of the sleep, in seconds


def figures() -> Iterator[Figure]:
    """The delay that each piece of work adds at 1,000 tools and 10,000 usage keys."""
    contenders = {name: _measures(name, tools=1_000) for name in CONTENDERS}
    for subject in contenders["component"]:
        samples = _samples(31, {name: work[subject] for name, work in contenders.items()})
        component, plain = samples["component"], samples["plain"]
        ratio = plain / component if component >= MEASURABLE_MS else None
        yield Figure(subject, component, plain, "ms", ratio, component_under=LIMITS_MS[subject])


def growth_figures() -> Iterator[Figure]:
    """The same of the component at 100,000 usage keys, beside 1,000."""
    sizes = {str(tools): _measures("component", tools) for tools in (100, 10_000)}
    for subject in sizes["100"]:
        samples = _samples(15, {tools: work[subject] for tools, work in sizes.items()})
        small, large = samples["100"], samples["10000"]
        ratio = large / max(small, MEASURABLE_MS) if large >= MEASURABLE_MS else None
        yield Figure(subject, large, small, "ms", ratio)


def _samples(rounds: int, measures: dict[str, Callable[[], Wakes]]) -> dict[str, float]:
    gc.freeze()  # what was made so far is no part of the collections that the work sets off
    return {name: _added_ms(runs) for name, runs in interleaved(rounds, measures).items()}


def _added_ms(runs: list[Wakes]) -> float:
    work, sleep = (quantiles(wakes, n=4)[0] for wakes in zip(*runs))
    return max(work - sleep, 0) * 1e3


def _measures(name: str, tools: int) -> dict[str, Callable[[], Wakes]]:
    db = MemoryDb()
    tracker = filled(name, db, tools)
    tracker.flush()

    def flush_everything() -> Wakes:
        change_all(tracker, tools)
        return _latest_wakes(tracker.flush)

    return {
        "start": lambda: _latest_wakes(partial(CONTENDERS[name], db)),
        "flush of everything": flush_everything,
        "summary": lambda: _latest_wakes(tracker.get_health_summary),
    }


def _latest_wakes(work: Callable[[], Any]) -> Wakes:
    gc.collect()  # every piece of work starts as far from the next collection
    kept: list[Any] = []  # freeing the answer is its owner's work

    busy, length = _latest_wake(timed(lambda: kept.append(work())))
    idle, _ = _latest_wake(lambda: time.sleep(length))
    return busy, idle


def _latest_wake(work: Callable[[], Any]) -> tuple[float, Any]:
    """How late the loop woke at worst, in seconds, and what the work returned."""
    os.sched_setaffinity(0, CPUS[:1])
    try:
        return asyncio.run(_watch(work))
    finally:
        os.sched_setaffinity(0, CPUS)


async def _watch(work: Callable[[], Any]) -> tuple[float, Any]:
    results, latest = [], 0.0

    def padded() -> None:
        os.sched_setaffinity(0, CPUS[1:] or CPUS)
        time.sleep(0.005)
        results.append(work())
        time.sleep(0.005)

    # No executor: its wake at the end would delay the loop's last timer.
    thread = threading.Thread(target=padded)
    thread.start()
    await asyncio.sleep(0.002)
    while thread.is_alive():
        due = time.perf_counter() + 0.001
        await asyncio.sleep(0.001)
        latest = max(latest, time.perf_counter() - due)
    thread.join()
    return latest, results[0]
