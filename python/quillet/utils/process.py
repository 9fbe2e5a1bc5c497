"""The process's threads: their census, and pools of them."""

import os
import re
import threading
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

# A thread's number: at the end of its name, or before the name of its function in brackets.
_RUNNING_NUMBER = re.compile(r"(?<=.)[-_]\d+(?=( \(.*\))?$)")


@dataclass(frozen=True)
class ThreadCensus:
    """The process's threads at one moment."""

    os_threads: int
    python_total: int
    python_threads: dict[str, int]


def thread_census() -> ThreadCensus:
    """Counts the threads, those of the interpreter by name without the running number."""
    names = [_RUNNING_NUMBER.sub("", thread.name) for thread in threading.enumerate()]
    counts = dict(sorted(Counter(names).items()))
    return ThreadCensus(len(os.listdir("/proc/self/task")), len(names), counts)


def started_pool(size: int, name: str) -> ThreadPoolExecutor:
    """A pool that starts no thread later, when a task would already be waiting for it.

    A RuntimeError says that the system has no thread left.
    """
    pool = ThreadPoolExecutor(size, thread_name_prefix=name)
    all_started = threading.Barrier(size)
    try:
        for started in [pool.submit(all_started.wait) for _ in range(size)]:
            started.result()
    except RuntimeError:  # those that are there are let go
        all_started.abort()
        pool.shutdown(cancel_futures=True)
        raise
    return pool
