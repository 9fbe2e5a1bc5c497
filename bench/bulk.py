"""What it costs to sum up and to save everything, for each usage key."""

import gc
from collections.abc import Iterator
from statistics import median

from contenders import ACTIONS, both
from figures import Figure
from growth import MEASURES
from timing import interleaved, median_ratio

TITLE = "Summary and flush of everything, for each key: how many times as fast"
WORK = (("summary", 10, 101, None), ("summary", 1_000, 5, 20), ("flush of everything", 1_000, 9, 4))


def figures() -> Iterator[Figure]:
    """The summary of few tools and of many, and the flush of many."""
    for work, tools, rounds, at_least in WORK:
        keys = tools * ACTIONS
        measures = {name: MEASURES[work](tracker, tools) for name, tracker in both(tools).items()}
        gc.freeze()
        samples = interleaved(rounds, measures)
        us = {name: median(times) / keys * 1e6 for name, times in samples.items()}
        ratio = median_ratio(samples["plain"], samples["component"])
        subject = f"{work}, {keys:,} keys"
        yield Figure(subject, us["component"], us["plain"], "us", ratio, at_least)
