"""What a tool and a usage key weigh, each weighed in processes of their own."""

import ctypes
import gc
import subprocess
import sys
from collections.abc import Callable, Iterator
from functools import cache
from statistics import median
from typing import Any

from contenders import CONTENDERS, MemoryDb
from figures import Figure
from timing import interleaved

COUNT = 10_000
Text = Callable[[str, int], str]


def fresh(kind: str, number: int) -> str:
    """A name that lives only as long as a tracker keeps it."""
    return f"{kind}_{number:05d}"


def add_tools(tracker: Any, text: Text, count: int) -> None:
    """Bring in one tool after another."""
    for number in range(count):
        tracker.record_success(text("tool", number))


def add_keys(tracker: Any, text: Text, count: int) -> None:
    """Bring in usage keys, ten of each tool."""
    for number in range(count):
        tool, action = divmod(number, 10)
        key = text("tool", tool), text("action", action), "ok"
        tracker.record_call(*key, alias_hit=False, duration_ms=1.25)


ADDERS = {"a tool": add_tools, "a usage key": add_keys}
TEXTS = {"names of its own": fresh, "names shared with the caller": cache(fresh)}


def figures() -> Iterator[Figure]:
    """Bytes of private memory, the names' own texts counted (as after a start) and then not."""
    for texts in TEXTS:
        for subject in ADDERS:
            yield _figure(subject, texts)


def _figure(subject: str, texts: str) -> Figure:
    def weigh(name: str) -> Callable[[], float]:
        command = [sys.executable, __file__, name, subject, texts]
        return lambda: float(subprocess.check_output(command))

    samples = interleaved(3, {name: weigh(name) for name in CONTENDERS})
    component, plain = (median(samples[name]) for name in CONTENDERS)
    aim = {"at_most": 0.5} if subject == "a usage key" else {}
    return Figure(f"{subject}, {texts}", component, plain, "bytes", component / plain, **aim)


def _weight(name: str, subject: str, texts: str) -> float:
    """How much the process grows for each one added to a new tracker; nothing is flushed."""
    text = TEXTS[texts]
    for number in range(COUNT):  # shared names exist before the first weighing
        text("tool", number)
        text("action", number % 10)
    ADDERS[subject](CONTENDERS[name](MemoryDb()), text, 10)  # and so does the code itself
    tracker = CONTENDERS[name](MemoryDb())
    before = _private_bytes()
    ADDERS[subject](tracker, text, COUNT)
    return (_private_bytes() - before) / COUNT


def _private_bytes() -> int:
    gc.collect()
    ctypes.CDLL(None).malloc_trim(0)
    with open("/proc/self/smaps_rollup") as sizes:  # in kilobytes
        return sum(int(line.split()[1]) * 1024 for line in sizes if line.startswith("Private_"))


if __name__ == "__main__":
    print(_weight(*sys.argv[1:]))
