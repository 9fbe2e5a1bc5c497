"""The tools' health as metrics for Prometheus, from the summary that a tracker gives.

Register the collector beside the daemon's own metrics, with what saves the tracker if there is one:

    prometheus_client.REGISTRY.register(ToolHealthCollector(tracker, flusher))

A scrape then asks the tracker once and waits for no database. Error texts are left out: as labels
they would make a series each. Run as a program, it prints the metrics of a stored history:

    python -I examples/metrics.py tools.db
"""

import sys
import time
from collections.abc import Iterable
from pathlib import Path
from typing import Any, Protocol

from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily, Metric
from prometheus_client.registry import Collector


class Tracker(Protocol):
    """What the collector asks: `ToolHealthTracker` has it."""

    def get_health_summary(self) -> list[Any]:
        """A record per tool."""


class Saver(Protocol):
    """What saves the tracker now and then: when it last did, and whether its latest try did."""

    saved_at: float
    saved: bool


class ToolHealthCollector(Collector):
    """Collects a tracker's summary at each scrape, and how long ago it was saved."""

    def __init__(self, tracker: Tracker, saver: Saver | None = None) -> None:
        self._tracker = tracker
        self._saver = saver

    def collect(self) -> Iterable[Metric]:
        """The metrics of this moment; a mean is in seconds, and there once a call was timed."""
        tool, usage = ["tool"], ["tool", "action", "outcome", "synonym"]
        runs = CounterMetricFamily("tool_health_runs", "Runs of the tool that ended", labels=tool)
        errors = CounterMetricFamily("tool_health_errors", "Runs that failed", labels=tool)
        disabled = GaugeMetricFamily(
            "tool_health_disabled", "1 while the tool is disabled", labels=tool
        )
        calls = CounterMetricFamily(
            "tool_health_calls", "Calls, also those that were refused", labels=usage
        )
        means = GaugeMetricFamily(
            "tool_health_call_mean_seconds", "Mean duration of the timed ones", labels=usage
        )
        for record in self._tracker.get_health_summary():
            name = _label(record["tool_name"])
            runs.add_metric([name], record["call_count"])
            errors.add_metric([name], record["error_count"])
            disabled.add_metric([name], record["disabled"])
            for row in record["usage"]:
                synonym = "true" if row["alias_hit"] else "false"
                labels = [name, _label(row["action"]), _label(row["outcome"]), synonym]
                calls.add_metric(labels, row["calls"])
                if row["avg_ms"] is not None:
                    means.add_metric(labels, row["avg_ms"] / 1000)
        return [runs, errors, disabled, calls, means, *self._saving()]

    def _saving(self) -> Iterable[Metric]:
        if self._saver:
            age = time.time() - self._saver.saved_at
            yield GaugeMetricFamily(
                "tool_health_flush_age_seconds", "Seconds since the latest save", age
            )
            failed = not self._saver.saved
            yield GaugeMetricFamily(
                "tool_health_flush_failed", "1 if the latest save failed", failed
            )


def _label(value: object) -> str:
    """A label as Prometheus takes it: without lone surrogates, and empty for what is none."""
    text = "" if value is None else str(value)
    return text.encode("utf-8", "backslashreplace").decode()


if __name__ == "__main__":
    from quillet.config import ToolsConfig
    from quillet.hosting.stored_health import read_stored_health

    tracker, _ = read_stored_health(Path(sys.argv[1]), ToolsConfig())
    registry = CollectorRegistry()
    registry.register(ToolHealthCollector(tracker))
    print(generate_latest(registry).decode(), end="")
