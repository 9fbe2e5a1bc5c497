"""The other end of the protocol: starts a daemon, and speaks with it."""

import itertools
import json
import subprocess
import threading
from collections.abc import Mapping, Sequence
from contextlib import suppress
from queue import Empty, SimpleQueue
from typing import Any, Self

from quillet.protocol.messages import Id, line_of
from quillet.protocol.revisions import CLIENT_CAPABILITIES, STATELESS, VERSION

META = {"_meta": {VERSION: STATELESS, CLIENT_CAPABILITIES: {}}}
PATIENCE_S = 60


class Client:
    """A daemon of its own, which ends when this is left. An EOFError says that it ended before."""

    def __init__(self, command: Sequence[Any], **popen: Any) -> None:
        pipe = subprocess.PIPE
        self.daemon: subprocess.Popen[bytes]
        self.daemon = subprocess.Popen(command, stdin=pipe, stdout=pipe, **popen)
        assert self.daemon.stdin and self.daemon.stdout
        self._input, self._output = self.daemon.stdin, self.daemon.stdout
        self._lines: SimpleQueue[bytes] = SimpleQueue()
        self._ids = itertools.count(1)
        # Answers are taken in while requests are written: both sides could wait for each other.
        threading.Thread(target=self._read, name="client", daemon=True).start()

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.end()

    def send(self, line: bytes) -> None:
        """Writes a line."""
        self._input.write(line)
        self._input.flush()

    def request(self, method: str, params: Mapping[str, Any] = {}, id: Id | None = None) -> Id:
        """Writes a request of the stateless revision; returns its id."""
        id = next(self._ids) if id is None else id
        self.send(line_of({"id": id, "method": method, "params": {**META, **params}}))
        return id

    def cancel(self, id: Id) -> None:
        """Asks for no answer to a request any more."""
        self.send(line_of({"method": "notifications/cancelled", "params": {"requestId": id}}))

    def receive(self, patience_s: float = PATIENCE_S) -> dict[str, Any]:
        """The next message that the daemon wrote; a TimeoutError when there is none so long."""
        try:
            line = self._lines.get(timeout=patience_s)
        except Empty:
            raise TimeoutError("the daemon does not answer") from None
        if not line:
            raise EOFError(f"the daemon ended with {self.daemon.wait()}")
        message: dict[str, Any] = json.loads(line)
        return message

    def ask(self, method: str, params: Mapping[str, Any] = {}) -> dict[str, Any]:
        """The answer to one request, while no other is open."""
        with suppress(BrokenPipeError):  # what it wrote before tells more
            self.request(method, params)
        return self.receive()

    def call(self, tool: str, arguments: Mapping[str, Any] = {}) -> dict[str, Any]:
        """The result of one tool's call; the error instead if there is no such tool."""
        answer = self.ask("tools/call", {"name": tool, "arguments": arguments})
        result: dict[str, Any] = answer.get("result") or answer["error"]
        return result

    def end(self) -> int:
        """Ends the input, as a client does that is done; returns the daemon's exit status."""
        with suppress(BrokenPipeError):
            self._input.close()
        return self.daemon.wait(PATIENCE_S)

    def _read(self) -> None:
        for line in self._output:
            self._lines.put(line)
        self._lines.put(b"")
