"""The tools that tell the agent how the daemon itself fares."""

from collections.abc import Mapping
from typing import Any

from quillet.tool_handlers import health
from quillet.tool_handlers.context import ToolContext
from quillet.utils.process import thread_census


def perf_stats(context: ToolContext) -> dict[str, Any]:
    """Tells how each tool fares, how long a disabled one stays so, and the threads."""
    return {
        "tools": context.tracker.get_health_summary(),
        "cooldown_s": context.tracker.cooldown_s,
        "threads": threads(context),
        **context.notes,
    }


def threads(context: ToolContext) -> Mapping[str, Any]:
    """Counts the daemon's threads against the most that its pools allow."""
    return health.thread_census_report(context.thread_budget, thread_census())


def tool_performance_stats(context: ToolContext) -> Mapping[str, Any]:
    """Tells how long the tools took since the daemon started."""
    return health.handle_get_tool_performance_stats()
