"""The program's command `serve`: a daemon on its standard streams."""

import argparse

from quillet.daemon.session import Session
from quillet.daemon.streams import StandardStreams
from quillet.daemon.tool_pipeline import HANDLER_THREADS, ToolPipeline
from quillet.keeper import lifecycle
from quillet.keeper.ending import Ending
from quillet.repository import Repository
from quillet.tool_handlers.health import ToolHealthTracker
from quillet.utils.process import started_pool


def main(options: argparse.Namespace) -> int:
    """Serves until the input ends or a signal comes; returns the exit status."""
    return lifecycle.run(options, _serve)


async def _serve(repository: Repository, tracker: ToolHealthTracker, ending: Ending) -> int:
    handlers = started_pool(HANDLER_THREADS, "tool")
    streams = StandardStreams(handlers.shutdown, ending)
    session = Session(ToolPipeline(repository, tracker, handlers), streams.answer)
    streams.start(session.receive)
    status = await ending.status
    streams.stop()
    return status
