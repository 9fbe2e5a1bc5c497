"""The program's command `serve`: a daemon on its standard streams."""

import argparse

from quillet.daemon.session import Session
from quillet.daemon.streams import StandardStreams
from quillet.daemon.tool_pipeline import HANDLER_THREADS, ToolPipeline
from quillet.hosting import lifecycle
from quillet.hosting.shutdown import Shutdown
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker
from quillet.utils.process import started_pool


def main(options: argparse.Namespace) -> int:
    """Serves until the input ends or a signal comes; returns the exit status."""
    return lifecycle.run(options, _serve)


async def _serve(repository: Repository, tracker: ToolHealthTracker, shutdown: Shutdown) -> int:
    handlers = started_pool(HANDLER_THREADS, "tool")
    streams = StandardStreams(handlers.shutdown, shutdown)
    session = Session(ToolPipeline(repository, tracker, handlers), streams.answer)
    streams.start(session.receive)
    status = await shutdown.status
    streams.stop()
    return status
