"""How the component's costs grow with the state: 0 is not at all, 1 in proportion."""

from collections.abc import Callable, Iterator
from itertools import cycle, islice
from math import log
from statistics import linear_regression, median
from typing import Any

from calls import CALLS, TIMED_CALL
from contenders import MemoryDb, change_all, filled, tool_name
from figures import Figure
from timing import interleaved, seconds, timed, timed_loop

TITLE = "Growth from 100 keys to 10,000: the exponent, 0 constant, 1 linear"
SIZES = (10, 100, 1_000)  # tools, each of ten usage keys


def figures() -> Iterator[Figure]:
    """The cost at 10,000 keys and at 100; the ratio is the exponent of the growth through 1,000."""
    trackers = {tools: filled("component", MemoryDb(), tools) for tools in SIZES}
    for subject, measure in MEASURES.items():
        measures = {str(tools): measure(tracker, tools) for tools, tracker in trackers.items()}
        samples = interleaved(15, measures)
        us = [median(times) * 1e6 for times in samples.values()]
        exponent, _ = linear_regression([*map(log, SIZES)], [*map(log, us)])
        yield Figure(subject, us[-1], us[0], "us", round(exponent, 2) + 0.0)


def _over_all_tools(call: str) -> Callable[[Any, int], Callable[[], float]]:
    """A measure of one call's cost, met by every tool in turn."""

    def measure(tracker: Any, tools: int) -> Callable[[], float]:
        names = list(islice(cycle(map(tool_name, range(tools))), CALLS))
        loop = timed_loop(call)
        return lambda: loop(tracker, names) / CALLS

    return measure


def _full_flush(tracker: Any, tools: int) -> Callable[[], float]:
    def measure() -> float:
        change_all(tracker, tools)
        return seconds(tracker.flush)

    return measure


MEASURES: dict[str, Callable[[Any, int], Callable[[], float]]] = {
    "is_disabled": _over_all_tools("target.is_disabled(name)"),
    "record_success": _over_all_tools("target.record_success(name)"),
    "record_call": _over_all_tools(TIMED_CALL),
    "flush of everything": _full_flush,
    "summary": lambda tracker, _: timed(tracker.get_health_summary),
}
