"""The messages that go over the streams: JSON-RPC, a line each."""

import json
from typing import Any, NamedTuple, Never

PARSE_ERROR = -32700
INVALID_REQUEST = -32600
METHOD_NOT_FOUND = -32601
INVALID_PARAMS = -32602
INTERNAL_ERROR = -32603
MAX_MESSAGE_BYTES = 1_000_000
Id = str | int


class ProtocolError(Exception):
    """The error that answers a message which cannot be served."""

    def __init__(self, code: int, message: str, data: Any = None, id: Id | None = None) -> None:
        super().__init__(message)
        self.code, self.data, self.id = code, data, id


class Message(NamedTuple):
    """A request, or a notification when it has no id."""

    id: Id | None
    method: str
    params: dict[str, Any]


def read_message(line: bytes) -> Message | None:
    """The message on a line; None for an empty line and for a response, as nothing is asked."""
    line = line.strip()
    if len(line) > MAX_MESSAGE_BYTES:
        raise ProtocolError(INVALID_REQUEST, f"Longer than {MAX_MESSAGE_BYTES:,} bytes")
    if not line:
        return None
    try:
        # Bytes given to the parser itself might be taken for UTF-16.
        value = json.loads(line.decode(), parse_constant=_refuse_constant)
    except (ValueError, RecursionError) as error:
        raise ProtocolError(PARSE_ERROR, f"Not JSON: {error}") from error
    id = value.get("id") if isinstance(value, dict) else None
    id = id if isinstance(id, str | int) and not isinstance(id, bool) else None
    match value:
        case {"jsonrpc": "2.0", "method": str() as method} if id is not None or "id" not in value:
            params = value.get("params", {})
            if isinstance(params, dict):
                return Message(id, method, params)
            if id is None:
                return None
            raise ProtocolError(INVALID_PARAMS, "params must be an object", id=id)
        case {"jsonrpc": "2.0", "result": _} | {"jsonrpc": "2.0", "error": _}:
            return None
    words = "Not a message of JSON-RPC 2.0, with a text or an integer for its id"
    raise ProtocolError(INVALID_REQUEST, words, id=id)


def error_response(id: Id | None, error: ProtocolError) -> bytes:
    """The line that says why there is no answer, without an id if it could not be read."""
    fields = {"code": error.code, "message": str(error)}
    if error.data is not None:
        fields["data"] = error.data
    return line_of({"error": fields} if id is None else {"id": id, "error": fields})


def line_of(fields: dict[str, Any]) -> bytes:
    """The line that carries a message with these fields; a ValueError if JSON cannot hold them."""
    return json.dumps({"jsonrpc": "2.0", **fields}, allow_nan=False).encode() + b"\n"


def _refuse_constant(name: str) -> Never:
    raise ValueError(f"{name} is no number")
