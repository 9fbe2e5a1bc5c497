"""The program's command `guard`: the tools' health of any server, kept beside it."""

import argparse

from quillet.guard.relay import Relay
from quillet.guard.watch import Watch
from quillet.hosting import lifecycle
from quillet.hosting.shutdown import Shutdown
from quillet.hosting.stored_health import register_every_tool
from quillet.repository import Repository
from quillet.tool_handlers import health


def main(options: argparse.Namespace) -> int:
    """Guards the server until a side leaves or a signal comes; returns the exit status."""

    async def guard(kept: Repository, tracker: health.ToolHealthTracker, shutdown: Shutdown) -> int:
        watch = Watch(tracker, kept.db.notes, errors_disable=options.disable_on == "errors")
        relay = Relay(options.server, watch, shutdown, options.timeout)
        status = await shutdown.status
        relay.stop()
        watch.end()
        return status

    # Which tools there are, the server says once it is asked: until then no history is forgotten.
    register_every_tool()
    setattr(health, "is_slow_call", lambda tool, action: False)
    return lifecycle.run(options, guard)
