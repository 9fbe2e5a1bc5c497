"""The work that walks the whole state at once: the summary, and the start."""

import gc
import tempfile
from collections.abc import Iterator
from functools import partial
from pathlib import Path
from statistics import median

from contenders import CONTENDERS, FileDb, MemoryDb, both, filled
from figures import Figure
from timing import interleaved, median_ratio, timed


def summary_figures() -> Iterator[Figure]:
    """What the summary costs for each of its usage keys."""
    for tools, rounds, at_least in ((10, 101, None), (1_000, 5, 20)):
        measures = {
            name: timed(tracker.get_health_summary) for name, tracker in both(tools).items()
        }
        gc.freeze()
        samples = interleaved(rounds, measures)
        us = {name: median(times) / (tools * 10) * 1e6 for name, times in samples.items()}
        ratio = median_ratio(samples["plain"], samples["component"])
        subject = f"summary of {tools:,} tools, each of {tools * 10:,} keys"
        yield Figure(subject, us["component"], us["plain"], "us", ratio, at_least)


def start_figures() -> Iterator[Figure]:
    """The start from 1,000 rows and 10,000 usage keys, in a database file and in memory."""
    with tempfile.TemporaryDirectory() as folder:
        files = {name: FileDb(Path(folder) / name) for name in CONTENDERS}
        yield _start_figure("start, from a file", files)
    yield _start_figure("start, from memory", {name: MemoryDb() for name in CONTENDERS})


def _start_figure(subject: str, dbs: dict[str, FileDb] | dict[str, MemoryDb]) -> Figure:
    for name, db in dbs.items():
        filled(name, db, 1_000).flush()
    gc.freeze()
    samples = interleaved(
        15, {name: timed(partial(CONTENDERS[name], db)) for name, db in dbs.items()}
    )
    ms = {name: median(times) * 1e3 for name, times in samples.items()}
    ratio = median_ratio(samples["plain"], samples["component"])
    return Figure(subject, ms["component"], ms["plain"], "ms", ratio, at_least=4)
