"""What a call costs beside the plain class, and beside C that does nothing or reads the clock."""

from collections.abc import Callable, Iterator
from itertools import repeat
from statistics import median
from time import time
from typing import Any

from contenders import both, tool_name
from figures import Figure
from timing import interleaved, median_ratio, timed_loop

CALLS = 20_000
ROUNDS = 61
TIMED_CALL = "target.record_call(name, 'action_3', 'ok', alias_hit=False, duration_ms=1.25)"
UNTIMED_CALL = "target.record_call(name, 'action_3', 'ok', alias_hit=False, duration_ms=None)"
GUARDED_CALL = f"target.is_disabled(name); target.record_success(name); {TIMED_CALL}"

# Each on a tool of its own: how many times as fast it is meant to be, and how long beside C.
OPERATIONS: list[tuple[str, str, float, float | None]] = [
    ("is_disabled, enabled tool", "target.is_disabled(name)", 4, 2.4),
    ("is_disabled, disabled tool", "target.is_disabled(name)", 3.3, None),
    ("record_success", "target.record_success(name)", 4, 1.3),
    ("record_error", "target.record_error(name, 'the index is not open')", 4, None),
    ("record_call, with a time", TIMED_CALL, 4, 4.8),
    ("record_call, without a time", UNTIMED_CALL, 4, None),
    ("a guarded call: three of these", GUARDED_CALL, 4.5, None),
]
DISABLED_TOOL = 1
FLOORS: Any = {"floor": ("target.get(name)", {}), "clock": ("target()", time)}


def figures() -> Iterator[Figure]:
    """Each operation against the plain class and, where that has an aim, against the floor."""
    trackers = both(tools=100)
    for tracker in trackers.values():
        for _ in range(5):
            tracker.record_error(tool_name(DISABLED_TOOL), "the index is not open")
    for tool, (subject, call, at_least, floors) in enumerate(OPERATIONS):
        measures = {name: _loop(call, tracker, tool) for name, tracker in trackers.items()}
        floor = "clock" if subject == "record_success" else "floor"
        measures[floor] = _loop(*FLOORS[floor], tool)
        measures["empty"] = _loop("pass", None, tool)
        samples = interleaved(ROUNDS, measures)
        empty = samples.pop("empty")
        net = {
            name: [(full - loop) / CALLS * 1e9 for full, loop in zip(times, empty)]
            for name, times in samples.items()
        }
        ns = {name: median(times) for name, times in net.items()}
        ratio = median_ratio(net["plain"], net["component"])
        yield Figure(subject, ns["component"], ns["plain"], "ns", ratio, at_least)
        if floors:
            ratio = median_ratio(net["component"], net[floor])
            over = f"{subject}, over the {floor}"
            yield Figure(over, ns["component"], ns[floor], "ns", ratio, at_most=floors)


def _loop(call: str, target: Any, tool: int) -> Callable[[], float]:
    loop = timed_loop(call)
    name = tool_name(tool)
    return lambda: loop(target, repeat(name, CALLS))
