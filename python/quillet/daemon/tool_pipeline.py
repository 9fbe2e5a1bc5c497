"""Runs the agent's tool calls from the event loop and reports how each one ended."""

import asyncio
import time
from collections.abc import Mapping
from concurrent.futures import ThreadPoolExecutor
from typing import Any, NamedTuple

from quillet.daemon.tool_calls import ToolCall, UnclearCall, resolve
from quillet.hosting.gate import ToolGate
from quillet.hosting.outcome import Outcome
from quillet.repository import Repository
from quillet.tool_handlers.context import CallerError, ToolContext
from quillet.tool_handlers.health import ToolHealthTracker
from quillet.tool_schemas import argument_problem
from quillet.utils.timing import get_timing_collector

HANDLER_THREADS = 4
THREAD_BUDGET = HANDLER_THREADS + 5  # main, reader, writer, the log's and the flusher's
MAX_ERROR_CHARS = 500  # as many as are remembered


class Answer(NamedTuple):
    """What the agent gets: the handler's answer, or a text that says why there is none."""

    outcome: Outcome
    content: Any


class ToolPipeline:
    """One repository's calls: the loop asks whether a tool is disabled, threads run handlers."""

    def __init__(
        self, repository: Repository, tracker: ToolHealthTracker, handlers: ThreadPoolExecutor
    ) -> None:
        self._tracker = tracker
        self._gate = ToolGate(tracker)
        self._context = ToolContext(repository.root, tracker, repository.db.notes, THREAD_BUDGET)
        self._handlers = handlers

    async def call(self, tool: str, arguments: Mapping[str, Any]) -> Answer:
        """Runs one call. What an agent makes up is not recorded, so it cannot fill the memory.

        A call that is cancelled while its handler runs is recorded when that ends.
        """
        try:
            call = resolve(tool, arguments)
        except UnclearCall as error:
            return Answer(Outcome.INVALID, str(error))
        refusal = self._gate.refusal(tool)
        if refusal:
            return self._ended(call, Outcome.DISABLED, refusal)
        problem = argument_problem(call.handler, call.arguments)
        if problem:
            return self._ended(call, Outcome.INVALID, problem)
        loop = asyncio.get_running_loop()
        return await loop.run_in_executor(self._handlers, self._run, call)

    def _run(self, call: ToolCall) -> Answer:
        """Runs the handler and records how it ended, whether or not the loop still waits for it."""
        content, failure = None, None
        started = time.perf_counter()
        try:
            content = call.handler(self._context, **call.arguments)
        except CallerError as error:
            return self._ended(call, Outcome.INVALID, str(error)[:MAX_ERROR_CHARS])
        except BaseException as error:  # SystemExit, too, is an error of the tool
            failure = _error_text(error)
        elapsed_ms = (time.perf_counter() - started) * 1000
        get_timing_collector().record(call.tool, elapsed_ms, error=failure is not None)
        if failure is not None:
            self._gate.failed(call.tool, failure)
            return self._ended(call, Outcome.ERROR, failure)
        self._gate.succeeded(call.tool)
        return self._ended(call, Outcome.OK, content, elapsed_ms)

    def _ended(
        self, call: ToolCall, outcome: Outcome, content: Any, duration_ms: float | None = None
    ) -> Answer:
        self._tracker.record_call(
            call.tool, call.action, outcome, alias_hit=call.alias_hit, duration_ms=duration_ms
        )
        return Answer(outcome, content)


def _error_text(error: BaseException) -> str:
    """The error in words, whatever its class does when asked for them."""
    try:
        words = str(error)
    except BaseException as second:
        words = f"its text cannot be had: {type(second).__name__}"
    return f"{type(error).__name__}: {words}"[:MAX_ERROR_CHARS]
