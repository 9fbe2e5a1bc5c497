"""How many guarded calls several threads get through together."""

import threading
from collections.abc import Callable, Iterator
from itertools import repeat
from statistics import median
from typing import Any

from calls import GUARDED_CALL
from contenders import both, tool_name
from figures import Figure
from timing import interleaved, median_ratio, seconds, timed_loop

CALLS = 200_000


def figures() -> Iterator[Figure]:
    """Calls a second from 2 and from 8 threads at once."""
    trackers = both(tools=100)
    for threads in (2, 8):
        crowds = {name: _crowd(tracker, threads) for name, tracker in trackers.items()}
        samples = interleaved(15, crowds)
        rates = {name: median(times) / 1e3 for name, times in samples.items()}
        ratio = median_ratio(samples["component"], samples["plain"])
        subject = f"guarded calls, {threads} threads"
        yield Figure(subject, rates["component"], rates["plain"], "k/s", ratio, at_least=4)


def _crowd(tracker: Any, threads: int) -> Callable[[], float]:
    loop = timed_loop(GUARDED_CALL)
    share = CALLS // threads

    def run() -> None:
        work = [(tracker, repeat(tool_name(i), share)) for i in range(threads)]
        crowd = [threading.Thread(target=loop, args=each) for each in work]
        for thread in crowd:
            thread.start()
        for thread in crowd:
            thread.join()

    return lambda: share * threads / seconds(run)
