"""The process-wide collector of how long the tools take."""

import threading
from collections import deque
from dataclasses import dataclass, field
from functools import cache
from typing import Any

WINDOW = 1000


@dataclass
class _Timing:
    """All of a tool's calls and errors counted, and the times of its latest calls."""

    count: int = 0
    errors: int = 0
    latest_ms: deque[float] = field(default_factory=lambda: deque(maxlen=WINDOW))


class TimingCollector:
    """Calls and errors since the start; mean, percentile and extremes of the latest calls' times.

    The 95th percentile is by nearest rank: the least time that 95 in 100 do not exceed.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._timings: dict[str, _Timing] = {}

    def record(self, name: str, elapsed_ms: float, *, error: bool) -> None:
        """Counts one call of a tool."""
        with self._lock:
            timing = self._timings.setdefault(name, _Timing())
            timing.count += 1
            timing.errors += error
            timing.latest_ms.append(elapsed_ms)

    def get_all_stats(self) -> list[dict[str, Any]]:
        """One record per tool, in the order of their first calls."""
        with self._lock:
            copies = [(n, t.count, t.errors, list(t.latest_ms)) for n, t in self._timings.items()]
        return [_stats(*copy) for copy in copies]


def _stats(name: str, count: int, errors: int, times: list[float]) -> dict[str, Any]:
    times.sort()
    rank = -(-95 * len(times) // 100)
    figures = {"avg_ms": sum(times) / len(times), "p95_ms": times[rank - 1]}
    figures |= {"min_ms": times[0], "max_ms": times[-1]}
    rounded = {key: round(figure, 3) for key, figure in figures.items()}
    return {"name": name, "count": count, **rounded, "errors": errors}


@cache
def get_timing_collector() -> TimingCollector:
    """The process's one collector."""
    return TimingCollector()
