"""The census of the process's threads."""

import re
import threading
from collections import Counter
from dataclasses import dataclass

try:
    import psutil
except ImportError:
    psutil = None

# A thread's number: at the end of its name, or before the name of its function in brackets.
_RUNNING_NUMBER = re.compile(r"(?<=.)[-_]\d+(?=( \(.*\))?$)")


@dataclass(frozen=True)
class ThreadCensus:
    """The process's threads at one moment."""

    os_threads: int | None
    python_total: int
    python_threads: dict[str, int]


def thread_census() -> ThreadCensus:
    """Counts the threads, those of the interpreter by name without the running number."""
    names = [_RUNNING_NUMBER.sub("", thread.name) for thread in threading.enumerate()]
    return ThreadCensus(_os_threads(), len(names), dict(sorted(Counter(names).items())))


def _os_threads() -> int | None:
    if psutil is None:
        return None
    try:
        count: int = psutil.Process().num_threads()
        return count
    except psutil.Error:
        return None
