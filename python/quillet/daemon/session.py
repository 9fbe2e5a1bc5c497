"""Answers a client's messages, each in its own time."""

import asyncio
import logging
from collections.abc import Callable
from functools import partial
from reprlib import repr as shortened
from typing import Any

from quillet.daemon.tool_pipeline import ToolPipeline
from quillet.hosting.outcome import Outcome
from quillet.protocol import messages, revisions
from quillet.protocol.messages import Id, Message, ProtocolError
from quillet.protocol.results import tool_result
from quillet.tool_registry import TOOLS
from quillet.tool_schemas import description, input_schema

# All that is served reads the repository or the process, and nothing else.
HINTS = {"readOnlyHint": True, "openWorldHint": False}

logger = logging.getLogger(__name__)


class Session:
    """The requests of the client at the other end, which are answered side by side."""

    def __init__(self, pipeline: ToolPipeline, answer: Callable[[bytes | None], None]) -> None:
        self._pipeline = pipeline
        self._answer = answer
        self._initialized = False
        self._open: dict[Id, asyncio.Task[bytes]] = {}

    def receive(self, line: bytes) -> None:
        """Takes a line, and answers it sooner or later, with None where no answer is due."""
        try:
            message = messages.read_message(line)
            if message is None or message.id is None:
                if message and message.method == "notifications/cancelled":
                    self._cancel(message.params.get("requestId"))
                self._answer(None)
                return
            if message.id in self._open:
                raise ProtocolError(messages.INVALID_REQUEST, "The id is in use", id=message.id)
        except ProtocolError as error:
            self._answer(messages.error_response(error.id, error))
            return
        task = asyncio.create_task(self._respond(message.id, message))
        self._open[message.id] = task
        # Not in a `finally` of _respond: a task cancelled before it starts never gets there.
        task.add_done_callback(partial(self._done, message.id))

    def _cancel(self, id: object) -> None:
        """Ends a request without an answer; from now on, its id may be given to another."""
        task = self._open.pop(id, None) if isinstance(id, str | int) else None
        if task:
            task.cancel()

    def _done(self, id: Id, task: asyncio.Task[bytes]) -> None:
        if self._open.get(id) is task:
            del self._open[id]
        self._answer(None if task.cancelled() else task.result())

    async def _respond(self, id: Id, request: Message) -> bytes:
        try:
            return messages.line_of({"id": id, "result": await self._result(request)})
        except ProtocolError as error:
            return messages.error_response(id, error)
        except Exception:
            logger.exception("Could not answer a request of %s", shortened(request.method))
            failure = ProtocolError(messages.INTERNAL_ERROR, "The daemon failed; its log says why")
            return messages.error_response(id, failure)

    async def _result(self, request: Message) -> dict[str, Any]:
        params = request.params
        stateless = revisions.is_stateless(params)
        match request.method:
            case "initialize" if not stateless:
                result = revisions.initialize_result(params)
                self._initialized = True
                return result
            case "ping" if not stateless:
                return {}
            case "server/discover" if stateless:
                result = revisions.discovery()
            case "tools/list" if stateless or self._initialized:
                result = _tool_list(params)
            case "tools/call" if stateless or self._initialized:
                result = await self._call(params)
            case "server/discover" | "tools/list" | "tools/call":
                words = f"_meta lacks {revisions.VERSION}, and no hands were shaken"
                raise ProtocolError(messages.INVALID_PARAMS, words)
            case method:
                raise ProtocolError(messages.METHOD_NOT_FOUND, f"No method {shortened(method)}")
        if stateless:
            return revisions.stateless_result(result, cacheable=request.method != "tools/call")
        return result

    async def _call(self, params: dict[str, Any]) -> dict[str, Any]:
        name, arguments = params.get("name"), params.get("arguments", {})
        if not isinstance(name, str) or not isinstance(arguments, dict):
            words = "A call has a name, and its arguments are an object"
            raise ProtocolError(messages.INVALID_PARAMS, words)
        if name not in TOOLS:
            words = f"There is no tool {shortened(name)}, only: {', '.join(TOOLS)}"
            raise ProtocolError(messages.INVALID_PARAMS, words)
        answer = await self._pipeline.call(name, arguments)
        return tool_result(answer.content, failed=answer.outcome is not Outcome.OK)


def _tool_list(params: dict[str, Any]) -> dict[str, Any]:
    """All tools at once, in the registry's order."""
    if "cursor" in params:
        raise ProtocolError(messages.INVALID_PARAMS, "There are no further tools")
    tools = [
        {
            "name": name,
            "description": description(spec.handlers),
            "inputSchema": input_schema(spec.handlers),
            "annotations": HINTS,
        }
        for name, spec in TOOLS.items()
    ]
    return {"tools": tools}
