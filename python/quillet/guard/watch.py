"""What a guard makes of the messages that go by: which it answers itself, and what it records."""

import itertools
import json
import threading
import time
from collections import deque
from collections.abc import Iterator, Mapping
from contextlib import suppress
from dataclasses import dataclass
from typing import Any

from quillet.hosting.gate import ToolGate
from quillet.hosting.next_try import tools_with_next_try
from quillet.hosting.outcome import Outcome
from quillet.protocol import messages, revisions
from quillet.protocol.results import tool_result
from quillet.tool_handlers.health import ToolHealthTracker

OWN_TOOL = "tool_health"
OWN_ENTRY = {
    "name": OWN_TOOL,
    "description": "Tells which tools of this server failed or are disabled, why and until when, "
    "or how one tool fares.",
    "inputSchema": {
        "type": "object",
        "properties": {"tool": {"type": "string", "description": "the tool, if only one"}},
        "additionalProperties": False,
    },
    "annotations": {"readOnlyHint": True, "openWorldHint": False},
}
CALLERS_FAULT = (messages.METHOD_NOT_FOUND, messages.INVALID_PARAMS)
ANSWERS = ("result", "error")
UNSURE = "the call was cancelled, but may still have taken effect"
HANDSHAKE = "quillet: the server was started again"  # no client's id
MAX_LATE = 1_000  # calls given up whose late answers are dropped, should they ever come


@dataclass
class Request:
    """A request of the client's."""

    id: messages.Id
    method: str

    def failure(self, why: str) -> bytes:
        """The line that says why it has no other answer."""
        error = messages.ProtocolError(messages.INTERNAL_ERROR, why)
        return messages.error_response(self.id, error)


@dataclass
class Call(Request):
    """A call of a tool."""

    tool: str
    action: str | None
    stateless: bool  # of the protocol's stateless revision
    task: bool  # a result would have to be a task's
    progress: Any  # the token of its progress
    began: float
    alive: float  # when it last made itself heard, by the watch's clock

    def answer(self, content: Any, *, failed: bool) -> bytes:
        """The line that answers it."""
        result = tool_result(content, failed=failed)
        if self.stateless:
            result = revisions.stateless_result(result, cacheable=False)
        return messages.line_of({"id": self.id, "result": result})

    def failure(self, why: str) -> bytes:
        return super().failure(why) if self.task else self.answer(why, failed=True)


class Watch:
    """Knows the tools that were listed and the requests that are open; reads and writes nothing.

    Any thread may use it. The one that removes a request from `_open` ends it, so each ends once.
    """

    def __init__(
        self, tracker: ToolHealthTracker, notes: Mapping[str, str], *, errors_disable: bool
    ) -> None:
        self._tracker, self._notes = tracker, notes
        self._gate = ToolGate(tracker)
        self._errors_disable = errors_disable
        self._lock = threading.Lock()
        # The tools that were listed, be it in an earlier run, with their actions.
        records = tracker.get_health_summary()
        self._tools: dict[str, list[Any]] = {record["tool_name"]: [] for record in records}
        self._open: dict[Any, Request] = {}
        self._clock_s = 0.0
        self._questions: set[messages.Id] = set()  # what the server asks the client
        self._late: deque[Any] = deque(maxlen=MAX_LATE)
        self._others = map("quillet: {}".format, itertools.count(1))  # no client's ids
        self._handshake: list[bytes] = []
        self._useful = False  # whether a request was answered, since the server was started

    def from_client(self, line: bytes) -> tuple[bytes, bytes]:
        """What the client gets in the server's stead, and what goes on to the server."""
        message = _read(line)
        match message.get("method"), message.get("id"), message.get("params"):
            case "notifications/initialized", None, _:
                self._handshake.append(line)
            case None, str() | int() as id, _:
                self._questions.discard(id)
            case "notifications/cancelled", _, {"requestId": str() | int() as id}:
                with self._lock:
                    sent = id
                    if id not in self._open:
                        sent = next((key for key, r in self._open.items() if r.id == id), id)
                    request = self._open.pop(sent, None)
                    if sent != id:
                        self._late.append(sent)
                if isinstance(request, Call):
                    self._count(request, Outcome.CANCELLED)
                if sent != id:
                    line = _with(message, line, params=message["params"] | {"requestId": sent})
            case "tools/call", str() | int(), {"name": str() as tool} if self._knows(tool):
                return self._begin(message, line)
            case str() as method, str() | int() as id, _:
                if method == "initialize":
                    self._handshake = [_with(message, b"", id=HANDSHAKE)]
                line = self._sent(Request(id, method), message, line)
        return b"", line

    def from_server(self, line: bytes) -> bytes:
        """What the client gets for a line of the server's: nothing for an answer too late."""
        if not (self._open or self._late or b'"id"' in line):
            return line
        message = _read(line)
        match message.get("method"), message.get("id"), message.get("params"):
            case str(), str() | int() as id, _:
                self._questions.add(id)
            case "notifications/cancelled", _, {"requestId": str() | int() as id}:
                self._questions.discard(id)
            case "notifications/progress", _, {"progressToken": str() | int() as token}:
                with self._lock:
                    for call in self._open.values():
                        if isinstance(call, Call) and call.progress == token:
                            call.alive = self._clock_s
            case None, str() | int() | float() as id, _ if not message.keys().isdisjoint(ANSWERS):
                return self._answered(id, message, line)
        return line

    def _answered(self, id: Any, message: dict[str, Any], line: bytes) -> bytes:
        if id not in self._open and isinstance(id, str) and id.isdecimal() and len(id) < 20:
            id = int(id)  # as clients take it
        with self._lock:
            request = self._open.pop(id, None)
            if not request and id in self._late:
                self._late.remove(id)
                return b""
        if request:
            self._useful = True
            if id != request.id:
                message["id"], line = request.id, _with(message, line, id=request.id)
            if isinstance(request, Call):
                self._end(request, message)
            elif request.method == "tools/list":
                return self._listed(message, line)
        return line

    def pass_time(self, span_s: float, timeout_s: float) -> Iterator[tuple[bytes, bytes]]:
        """Gives up calls that take too long; for each, its answer and the line that cancels it.

        No time passes while the client is to answer the server: a person may have to decide.
        """
        with self._lock:
            self._clock_s += 0 if self._questions else span_s
            latest = self._clock_s - span_s - timeout_s  # a call may have come late in a span
            requests = [*self._open.items()]
        why = f"no answer within {timeout_s:g} s"
        for id, call in requests:
            if isinstance(call, Call) and call.alive <= latest:
                with self._lock:
                    if self._open.get(id) is not call:  # it has just been answered
                        continue
                    del self._open[id]
                    self._late.append(id)
                self._fail(call, why)
                yield call.failure(f"{why}; {UNSURE}"), _cancel(id, "timeout")

    def server_ended(self, why: str) -> tuple[bytes, bytes | None]:
        """What the client gets, and what a server that is started again is told first.

        None for the latter if starting it is in vain: it answered nothing and ran no tool. So each
        start is paid for by a request of the client's, and a tool that ends it is disabled at last.
        """
        with self._lock:
            requests, self._open = self._open, {}
            self._late.clear()  # what else it owed, nobody gives any more
            if self._handshake:
                self._late.append(HANDSHAKE)
        useful = self._useful or any(isinstance(request, Call) for request in requests.values())
        self._useful = False
        answers = b"".join(self._fail(request, why) for request in requests.values())
        while self._questions:
            answers += _cancel(self._questions.pop(), why)
        return answers, b"".join(self._handshake) if useful else None

    def end(self) -> None:
        """Nobody waits for the calls that are open any more."""
        with self._lock:
            requests, self._open = self._open, {}
        for request in requests.values():
            if isinstance(request, Call):
                self._count(request, Outcome.CANCELLED)

    def _sent(self, request: Request, message: dict[str, Any], line: bytes) -> bytes:
        """Has a request wait for its answer; returns the line that asks the server for it.

        With an id of its own while that id's former call, which was given up, may be answered.
        """
        with self._lock:
            id = next(self._others) if request.id in self._late else request.id
            self._open.setdefault(id, request)  # an id in use is the server's to refuse
        return line if id == request.id else _with(message, line, id=id)

    def _knows(self, tool: str) -> bool:
        return tool in self._tools or tool == OWN_TOOL

    def _begin(self, message: dict[str, Any], line: bytes) -> tuple[bytes, bytes]:
        """Answers a call, or leaves it to the server."""
        params = message["params"]
        tool, meta, arguments = map(params.get, ("name", "_meta", "arguments"))
        meta, arguments = (x if isinstance(x, dict) else {} for x in (meta, arguments))
        action = arguments.get("action")
        known = isinstance(action, str) and action in self._tools.get(tool, ())
        kind = revisions.VERSION in meta, "task" in params, meta.get("progressToken")
        times = time.perf_counter(), self._clock_s
        call = Call(message["id"], "", tool, action if known else None, *kind, *times)
        if tool in self._tools:
            refusal = self._gate.refusal(tool)
            if refusal:
                self._count(call, Outcome.DISABLED)
                return call.failure(refusal), b""
            return b"", self._sent(call, message, line)
        records, asked = tools_with_next_try(self._tracker), arguments.get("tool")
        tools = [record for record in records if record["tool_name"] == asked]
        if asked is None:
            tools = [record for record in records if record["error_count"] or record["disabled"]]
        health = {"cooldown_s": self._tracker.cooldown_s, "tools": tools, **self._notes}
        return call.answer({**health, "others": len(records) - len(tools)}, failed=False), b""

    def _end(self, call: Call, message: dict[str, Any]) -> None:
        """Records how a call ended that the server has answered."""
        match message:
            case {"error": {"code": code}} if code in CALLERS_FAULT:
                self._count(call, Outcome.INVALID)
            case {"result": {"resultType": "input_required"}}:
                pass  # the client will call again, with what the server needs to know
            case {"result": {"isError": True}} if not self._errors_disable:
                self._gate.succeeded(call.tool)
                self._count(call, Outcome.ERROR)
            case {"error": failure} | {"result": {"isError": True} as failure}:
                self._fail(call, _words(failure))
            case _:
                self._gate.succeeded(call.tool)
                self._count(call, Outcome.OK, (time.perf_counter() - call.began) * 1000)

    def _fail(self, request: Request, why: str) -> bytes:
        """Records a failure, if a tool was called; returns the answer that tells of it."""
        if isinstance(request, Call):
            self._gate.failed(request.tool, why)
            self._count(request, Outcome.ERROR)
        return request.failure(why)

    def _count(self, call: Call, outcome: Outcome, ms: float | None = None) -> None:
        self._tracker.record_call(call.tool, call.action, outcome, alias_hit=False, duration_ms=ms)

    def _listed(self, message: dict[str, Any], line: bytes) -> bytes:
        """Takes in a list of tools; returns it with one more if it is the last."""
        match message:
            case {"result": {"tools": list() as tools} as result}:
                self._tools.update(map(_entry, tools))
                if OWN_TOOL not in self._tools and result.get("nextCursor") is None:
                    return _with(message, line, result={**result, "tools": [*tools, OWN_ENTRY]})
        return line


def _cancel(id: messages.Id, reason: str) -> bytes:
    """The line that cancels a request."""
    params = {"requestId": id, "reason": reason}
    return messages.line_of({"method": "notifications/cancelled", "params": params})


def _read(line: bytes) -> dict[str, Any]:
    """The line's message; empty if the line is no JSON object."""
    try:
        message = json.loads(line.decode(errors="replace"))
    except (ValueError, RecursionError):
        return {}
    return message if isinstance(message, dict) else {}


def _with(message: dict[str, Any], line: bytes, **fields: Any) -> bytes:
    """The message's line with some fields changed; as it was if it cannot be written so."""
    with suppress(ValueError, RecursionError):
        return messages.line_of(message | fields)
    return line


def _entry(tool: Any) -> tuple[str, list[Any]]:
    """A listed tool's name, and the actions that its schema enumerates."""
    match tool:
        case {
            "name": str() as name,
            "inputSchema": {"properties": {"action": {"enum": [*actions]}}},
        }:
            return name, actions
        case {"name": str() as name}:
            return name, []
    return "", []


def _words(failure: Any) -> str:
    """What an error or a result with `isError` says."""
    match failure:
        case {"message": str() as words}:
            return words
        case {"content": [*parts]}:
            for part in parts:
                if isinstance(part, dict) and isinstance(part.get("text"), str):
                    return str(part["text"])
    return json.dumps(failure)
