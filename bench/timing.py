"""How everything here is timed: contenders take turns, and medians are quoted."""

import time
from collections.abc import Callable, Iterable, Mapping
from statistics import median
from typing import Any, TypeVar

Sample = TypeVar("Sample")


def interleaved(
    rounds: int, measures: Mapping[str, Callable[[], Sample]]
) -> dict[str, list[Sample]]:
    """Take each measure once a round, so that a drift of the machine's speed meets them all."""
    samples: dict[str, list[Sample]] = {name: [] for name in measures}
    for _ in range(rounds):
        for name, measure in measures.items():
            samples[name].append(measure())
    return samples


def seconds(work: Callable[[], object]) -> float:
    """How long one run of the work takes."""
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def timed(work: Callable[[], object]) -> Callable[[], float]:
    """The measure of that work."""
    return lambda: seconds(work)


LOOP = """
def loop(target, names):
    start = clock()
    for name in names:
        {call}
    return clock() - start
"""


def timed_loop(call: str) -> Callable[[Any, Iterable[str]], float]:
    """A loop that times `call` on a target and a name, compiled as its callers write it.

    Every contender needs one of its own: the interpreter tunes a call to the type that it meets.
    """
    scope: dict[str, Any] = {"clock": time.perf_counter}
    exec(LOOP.format(call=call), scope)
    return scope["loop"]  # type: ignore[no-any-return]


def median_ratio(over: Iterable[float], under: Iterable[float]) -> float:
    """The median over the rounds of one contender's figure divided by another's."""
    return median(a / b for a, b in zip(over, under))
