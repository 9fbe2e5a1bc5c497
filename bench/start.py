"""What a start costs with so much stored."""

import gc
import tempfile
from collections.abc import Iterator
from functools import partial
from pathlib import Path
from statistics import median
from typing import Any

from contenders import CONTENDERS, MemoryDb, filled
from figures import Figure
from quillet.repository import Repository
from timing import interleaved, median_ratio, timed

TOOLS = 1_000


def figures() -> Iterator[Figure]:
    """The start from 10,000 usage keys, in a database file and in memory; and from more."""
    yield _from_a_file("start, from a file", actions=10, rounds=15, at_least=3.5)
    yield _figure("start, from memory", MemoryDb(), actions=10, rounds=15, at_least=3.5)
    yield _from_a_file("start, 100,000 keys from a file", actions=100, rounds=5)
    yield _from_a_file("start, 1,000,000 keys from a file", actions=1_000, rounds=3)


def _from_a_file(subject: str, **options: Any) -> Figure:
    with tempfile.TemporaryDirectory() as folder:
        with Repository(Path(folder), Path(folder, "db")) as repository:
            return _figure(subject, repository.db, **options)


def _figure(subject: str, db: Any, actions: int, rounds: int, at_least: Any = None) -> Figure:
    filled("component", db, TOOLS, actions).flush()
    gc.freeze()
    starts = {name: timed(partial(start, db)) for name, start in CONTENDERS.items()}
    samples = interleaved(rounds, starts)
    ms = {name: median(times) * 1e3 for name, times in samples.items()}
    ratio = median_ratio(samples["plain"], samples["component"])
    return Figure(subject, ms["component"], ms["plain"], "ms", ratio, at_least)
