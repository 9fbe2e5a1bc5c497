"""What the summary costs for each of its usage keys."""

import gc
from collections.abc import Iterator
from statistics import median

from contenders import ACTIONS, both
from figures import Figure
from timing import interleaved, median_ratio, timed


def figures() -> Iterator[Figure]:
    """The summary of few tools and of many."""
    for tools, rounds, at_least in ((10, 101, None), (1_000, 5, 20)):
        keys = tools * ACTIONS
        trackers = both(tools)
        gc.freeze()
        measures = {name: timed(tracker.get_health_summary) for name, tracker in trackers.items()}
        samples = interleaved(rounds, measures)
        us = {name: median(times) / keys * 1e6 for name, times in samples.items()}
        ratio = median_ratio(samples["plain"], samples["component"])
        subject = f"summary of {tools:,} tools, each of {keys:,} keys"
        yield Figure(subject, us["component"], us["plain"], "us", ratio, at_least)
