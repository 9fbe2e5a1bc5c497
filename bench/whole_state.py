"""The work that walks the whole state: summary, start and flush, and how cost grows with the state."""

import gc
import tempfile
from collections.abc import Callable
from functools import partial
from itertools import cycle, islice
from math import log
from pathlib import Path
from statistics import linear_regression, median
from typing import Any

from calls import CALLS, TIMED_CALL
from contenders import CONTENDERS, FileDb, SilentDb, change_tools, change_usage, filled, tool_name
from figures import Figure
from timing import interleaved, median_ratio, seconds, timed_loop


def summary_figures() -> list[Figure]:
    """What the summary costs for each of its entries."""
    figures = []
    for tools, rounds, at_least in ((10, 101, None), (100, 15, None), (1_000, 3, 20)):
        measures = {
            name: _timed(filled(name, SilentDb(), tools).get_health_summary) for name in CONTENDERS
        }
        gc.freeze()
        samples = interleaved(rounds, measures)
        subject = f"summary of {tools:,} tools, for each of {tools * 10:,} keys"
        us = {name: median(times) / (tools * 10) * 1e6 for name, times in samples.items()}
        ratio = median_ratio(samples["plain"], samples["component"])
        figures.append(Figure(subject, us["component"], us["plain"], "us", ratio, at_least))
    return figures


def storage_figures() -> list[Figure]:
    """The start from a full database file, and the flush of one changed tool into it and into nothing."""
    with tempfile.TemporaryDirectory() as folder:
        files = {name: FileDb(Path(folder) / name) for name in CONTENDERS}
        start, to_file, to_nothing = {}, {}, {}
        for name, file_db in files.items():
            to_file[name] = _one_tool_flush(_saved(name, file_db))
            to_nothing[name] = _one_tool_flush(_saved(name, SilentDb()))
            start[name] = _timed(partial(CONTENDERS[name], file_db))
        gc.freeze()
        return [
            _milliseconds("start, 1,000 tools and 10,000 keys in a file", 15, start),
            _milliseconds("flush of one tool of 1,000 to the file", 31, to_file),
            _milliseconds("flush of one tool of 1,000 to nothing", 201, to_nothing),
        ]


def growth_figures() -> list[Figure]:
    """The component's cost at 10,000 and at 100 keys; the ratio is the exponent of the growth through 1,000."""
    sizes = (10, 100, 1_000)
    trackers = {tools: filled("component", SilentDb(), tools) for tools in sizes}
    figures = []
    for subject, measure in GROWING.items():
        samples = interleaved(
            15, {str(tools): measure(tracker, tools) for tools, tracker in trackers.items()}
        )
        us = [median(times) * 1e6 for times in samples.values()]
        exponent = linear_regression(
            [log(tools) for tools in sizes], [log(cost) for cost in us]
        ).slope
        figures.append(Figure(subject, us[-1], us[0], "us", exponent))
    return figures


def _timed(work: Callable[[], object]) -> Callable[[], float]:
    return lambda: seconds(work)


def _saved(name: str, db: SilentDb | FileDb) -> Any:
    tracker = filled(name, db, 1_000)
    tracker.flush()
    return tracker


def _one_tool_flush(tracker: Any) -> Callable[[], float]:
    def measure() -> float:
        tracker.record_success(tool_name(500))
        return seconds(tracker.flush)

    return measure


def _milliseconds(subject: str, rounds: int, measures: dict[str, Callable[[], float]]) -> Figure:
    samples = interleaved(rounds, measures)
    ms = {name: median(times) * 1e3 for name, times in samples.items()}
    return Figure(
        subject,
        ms["component"],
        ms["plain"],
        "ms",
        median_ratio(samples["plain"], samples["component"]),
    )


def _over_all_tools(call: str) -> Callable[[Any, int], Callable[[], float]]:
    """A measure of one call's cost, met by every tool in turn."""

    def measure(tracker: Any, tools: int) -> Callable[[], float]:
        names = list(islice(cycle(map(tool_name, range(tools))), CALLS))
        loop = timed_loop(call)
        return lambda: loop(tracker, names) / CALLS

    return measure


def _full_flush(tracker: Any, tools: int) -> Callable[[], float]:
    def measure() -> float:
        change_tools(tracker, tools)
        change_usage(tracker, tools)
        return seconds(tracker.flush)

    return measure


GROWING: dict[str, Callable[[Any, int], Callable[[], float]]] = {
    "is_disabled": _over_all_tools("target.is_disabled(name)"),
    "record_success": _over_all_tools("target.record_success(name)"),
    "record_call": _over_all_tools(TIMED_CALL),
    "flush of everything to nothing": _full_flush,
    "summary": lambda tracker, _: _timed(tracker.get_health_summary),
}
