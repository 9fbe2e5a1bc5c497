"""Runs the agent's tool calls from the event loop and reports how each one ended."""

import asyncio
import time
from collections.abc import Mapping
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from enum import StrEnum
from typing import Any, Self

from quillet.daemon.tool_calls import ToolCall, UnclearCall, resolve
from quillet.repository import Repository
from quillet.tool_handlers.context import ToolContext
from quillet.tool_handlers.health import ToolHealthTracker
from quillet.tool_schemas import argument_problem
from quillet.utils.timing import get_timing_collector

HANDLER_THREADS = 4
THREAD_BUDGET = HANDLER_THREADS + 3  # the main thread, the player's and the flusher's


class Outcome(StrEnum):
    """How a call ended."""

    OK = "ok"
    ERROR = "error"  # the handler failed
    DISABLED = "disabled"  # the tool is not to be run for now
    INVALID = "invalid"  # the call asks for what there is not


@dataclass(frozen=True)
class Answer:
    """What the agent gets: the handler's answer, or a text that says why there is none."""

    outcome: Outcome
    action: str | None
    duration_ms: float | None  # of a handler that answered
    content: Any


class ToolPipeline:
    """One repository's calls: health is asked and told on the loop, handlers run in threads."""

    def __init__(self, repository: Repository, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        self._context = ToolContext(repository.root, tracker, THREAD_BUDGET)
        self._handlers = ThreadPoolExecutor(HANDLER_THREADS, thread_name_prefix="tool")

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self._handlers.shutdown(cancel_futures=True)

    async def call(self, tool: str, arguments: Mapping[str, Any]) -> Answer:
        """Runs one call. What an agent makes up is not recorded, so it cannot fill the memory."""
        try:
            call = resolve(tool, arguments)
        except UnclearCall as error:
            return Answer(Outcome.INVALID, None, None, str(error))
        disabled, last_error = self._tracker.is_disabled(tool)
        if disabled:
            again = f"it is tried again {self._tracker.cooldown_s:g} s after its last error"
            text = f"{tool} kept failing and is disabled; {again}: {last_error or 'unknown'}"
            return self._ended(call, Outcome.DISABLED, text)
        problem = argument_problem(call.handler, call.arguments)
        if problem:
            return self._ended(call, Outcome.INVALID, problem)
        # A call that is cancelled runs on, and is reported like any other.
        return await asyncio.shield(self._run(call))

    async def _run(self, call: ToolCall) -> Answer:
        loop = asyncio.get_running_loop()
        content, error, elapsed_ms = await loop.run_in_executor(self._handlers, self._handle, call)
        get_timing_collector().record(call.tool, elapsed_ms, error=error is not None)
        if error is not None:
            text = f"{type(error).__name__}: {error}"
            self._tracker.record_error(call.tool, text)
            return self._ended(call, Outcome.ERROR, text)
        self._tracker.record_success(call.tool)
        return self._ended(call, Outcome.OK, content, elapsed_ms)

    def _handle(self, call: ToolCall) -> tuple[Any, Exception | None, float]:
        content, failure = None, None
        started = time.perf_counter()
        try:
            content = call.handler(self._context, **call.arguments)
        except Exception as error:
            failure = error
        return content, failure, (time.perf_counter() - started) * 1000

    def _ended(
        self, call: ToolCall, outcome: Outcome, content: Any, duration_ms: float | None = None
    ) -> Answer:
        self._tracker.record_call(
            call.tool, call.action, outcome, alias_hit=call.alias_hit, duration_ms=duration_ms
        )
        return Answer(outcome, call.action, duration_ms, content)
