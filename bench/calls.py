"""What a tool call pays, and how many of them several threads get through together."""

import threading
from collections.abc import Callable
from itertools import repeat
from statistics import median
from typing import Any

from contenders import CONTENDERS, SilentDb, filled, tool_name
from figures import Figure
from timing import interleaved, median_ratio, seconds, timed_loop

CALLS = 20_000
ROUNDS = 61
TIMED_CALL = "target.record_call(name, 'action_3', 'ok', alias_hit=False, duration_ms=1.25)"
UNTIMED_CALL = "target.record_call(name, 'action_3', 'ok', alias_hit=False, duration_ms=None)"
GUARDED_CALL = f"target.is_disabled(name); target.record_success(name); {TIMED_CALL}"

# Each on a tool of its own, with the most floors it may cost; tool 1 is disabled before the start.
OPERATIONS: list[tuple[str, int, str, float | None]] = [
    ("is_disabled, enabled tool", 0, "target.is_disabled(name)", 2),
    ("is_disabled, disabled tool", 1, "target.is_disabled(name)", None),
    ("record_success", 2, "target.record_success(name)", 4),
    ("record_error", 3, "target.record_error(name, 'the index is not open')", None),
    ("record_call, with a time", 4, TIMED_CALL, 5),
    ("record_call, without a time", 5, UNTIMED_CALL, 5),
    ("is_disabled, record_success and record_call", 6, GUARDED_CALL, None),
]


def trackers() -> dict[str, Any]:
    """Both trackers, of 100 tools, with tool 1 disabled."""
    both = {name: filled(name, SilentDb(), 100) for name in CONTENDERS}
    for tracker in both.values():
        for _ in range(5):
            tracker.record_error(tool_name(1), "the index is not open")
    return both


def operation_figures() -> list[Figure]:
    """Each operation against the plain class, then against the floor: a C method that finds nothing."""
    both = trackers()
    against_plain, against_floor = [], []
    for subject, tool, call, floors in OPERATIONS:
        measures = {name: _loop(call, tracker, tool) for name, tracker in both.items()}
        measures["floor"] = _loop("target.get(name)", {}, tool)
        measures["empty"] = _loop("pass", None, tool)
        samples = interleaved(ROUNDS, measures)
        empty = samples.pop("empty")
        net = {
            name: [(full - loop) / CALLS * 1e9 for full, loop in zip(times, empty)]
            for name, times in samples.items()
        }
        ns = {name: median(times) for name, times in net.items()}
        ratio = median_ratio(net["plain"], net["component"])
        against_plain.append(Figure(subject, ns["component"], ns["plain"], "ns", ratio, at_least=4))
        ratio = median_ratio(net["component"], net["floor"])
        floor_subject = f"{subject}, over the floor"
        against_floor.append(
            Figure(floor_subject, ns["component"], ns["floor"], "ns", ratio, at_most=floors)
        )
    return against_plain + against_floor


def thread_figures() -> list[Figure]:
    """Guarded calls a second from 1, 2 and 8 threads at once."""
    both = trackers()
    figures = []
    for threads in (1, 2, 8):
        measures = {name: _crowd(tracker, threads) for name, tracker in both.items()}
        samples = interleaved(15, measures)
        rates = {name: median(times) / 1e3 for name, times in samples.items()}
        ratio = median_ratio(samples["component"], samples["plain"])
        subject = f"guarded calls, {threads} thread{'s' * (threads > 1)}"
        figures.append(
            Figure(subject, rates["component"], rates["plain"], "k/s", ratio, at_least=4)
        )
    return figures


def _loop(call: str, target: Any, tool: int) -> Callable[[], float]:
    loop = timed_loop(call)
    name = tool_name(tool)
    return lambda: loop(target, repeat(name, CALLS))


def _crowd(tracker: Any, threads: int) -> Callable[[], float]:
    loop = timed_loop(GUARDED_CALL)
    share = 200_000 // threads

    def run() -> None:
        crowd = [
            threading.Thread(target=loop, args=(tracker, repeat(tool_name(i), share)))
            for i in range(threads)
        ]
        for thread in crowd:
            thread.start()
        for thread in crowd:
            thread.join()

    return lambda: share * threads / seconds(run)
