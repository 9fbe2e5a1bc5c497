"""The server that a guard starts, and the messages between it and the client."""

import os
import select
import shutil
import signal
import subprocess
import threading
import time
from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from functools import partial
from queue import SimpleQueue

from quillet.diagnostics import complain
from quillet.exit_status import ExitStatus, killed_by
from quillet.guard.watch import Watch
from quillet.hosting.shutdown import Shutdown

SILENT_S = 5.0  # how long a server that is to end may take from one message to the next
SIGNALLED_S = 0.5  # and from a signal on, the guard's own among them
TICK_S = 0.1  # a call is given up at most two of these later than asked for
# The server is killed when the thread that started it ends, however that comes.
LAST_WILL = ("setpriv", "--pdeathsig", "KILL", "--")


class Relay:
    """Carries messages both ways, a thread each, which end with the process.

    A side that does not read holds up the one that writes to it; nothing is kept meanwhile.
    """

    def __init__(
        self, command: Sequence[str], watch: Watch, shutdown: Shutdown, timeout_s: float | None
    ) -> None:
        if not shutil.which(command[0]):
            raise FileNotFoundError(f"there is no command {command[0]!r}")
        self._watch, self._shutdown = watch, shutdown
        self._to_client, self._to_server = threading.Lock(), threading.Lock()
        self._cancels: SimpleQueue[bytes] = SimpleQueue()
        self._leaving, self._moved_at = False, 0.0
        self._command = [*LAST_WILL, *command]
        self._starter, self._starting = ThreadPoolExecutor(1, "starter"), threading.Lock()
        self._input = os.open(os.devnull, os.O_WRONLY)  # the number of every server's input
        self._start()
        self._down = self._thread("standard output", self._server_to_client)
        self._thread("standard input", self._client_to_server)
        self._thread("client", self._await_client)
        if timeout_s is not None:
            self._thread("timeout", self._expire_calls, timeout_s)
            self._thread("cancels", self._send_cancels)

    def stop(self) -> None:
        """Ends the server, and hands on what it wrote last."""
        self._leave()
        self._end_server(SIGNALLED_S)
        self._down.join(SIGNALLED_S)

    def _thread(self, name: str, work: Callable[..., None], *given: object) -> threading.Thread:
        """Starts a thread whose failure ends the guard."""

        def run() -> None:
            try:
                work(*given)
            except Exception as error:
                words = error if isinstance(error, OSError) else repr(error)
                self._shutdown.request(ExitStatus.FAILED, f"{name}: {words}")

        thread = threading.Thread(target=run, name=name, daemon=True)
        thread.start()
        return thread

    def _start(self) -> bool:
        """Starts the server, unless the guard is leaving.

        In a session of its own: Ctrl-C is the guard's, and all that the server starts ends with it.
        """
        with self._starting:
            if not self._leaving:
                popen: partial[subprocess.Popen[bytes]]
                popen = partial(subprocess.Popen, stdin=-1, stdout=-1, start_new_session=True)
                self._server = self._starter.submit(popen, self._command).result()
                assert self._server.stdin
                os.dup2(self._server.stdin.fileno(), self._input)
                self._server.stdin.close()
            return not self._leaving

    def _leave(self) -> None:
        """Has no server started any more."""
        with self._starting:
            self._leaving, self._moved_at = True, time.monotonic()

    def _client_to_server(self) -> None:
        os.set_blocking(0, True)
        with open(0, "rb", closefd=False) as source:
            for line in source:
                with self._to_server:  # a request is open at one server, or sent to the next
                    answer, line = self._watch.from_client(line)
                    self._tell_server(line)
                if answer:
                    self._tell_client(answer)
        self._leave()
        self._hang_up()
        self._await_last_words()

    def _await_client(self) -> None:
        """Sees the client go also while a server that does not read holds up what it wrote."""
        end = select.poll()
        end.register(0, select.POLLRDHUP)
        end.poll()
        self._moved_at = time.monotonic()
        self._await_last_words()

    def _await_last_words(self) -> None:
        while self._down.is_alive() and (
            self._to_client.locked() or time.monotonic() < self._moved_at + SILENT_S
        ):
            self._down.join(TICK_S)
        self._shutdown.request(ExitStatus.OK)

    def _server_to_client(self) -> None:
        os.set_blocking(1, True)
        started = True
        while started:
            assert self._server.stdout
            line = b"\n"
            for line in self._server.stdout:
                self._tell_client(self._watch.from_server(line))
            if self._leaving:
                return
            while not self._to_server.acquire(timeout=SILENT_S):
                self._end_server(0)  # it does not even read
            try:
                self._end_server(SILENT_S)
                status = self._server.wait()
                status = status if status >= 0 else killed_by(-status)
                why = f"the server ended with status {status}"
                answers, handshake = self._watch.server_ended(why)
                started = handshake is not None and self._start()
                if started:
                    complain(f"{why}, and is started again")
                    self._tell_server(handshake or b"")
            finally:
                self._to_server.release()
            self._tell_client(answers if line.endswith(b"\n") else b"\n" + answers)
        self._shutdown.request(status, why)

    def _expire_calls(self, timeout_s: float) -> None:
        while True:
            time.sleep(TICK_S)  # which is one tick, also when the guard was stopped meanwhile
            _, reads, _ = select.select([], [1], [], 0)
            if reads:  # else answers may be waiting for the client
                for answer, cancel in self._watch.pass_time(TICK_S, timeout_s):
                    self._cancels.put(cancel)
                    self._tell_client(answer)

    def _send_cancels(self) -> None:
        """Sends the cancels, in a thread of its own: a server that hangs may not read them."""
        while True:
            cancel = self._cancels.get()
            with self._to_server:
                self._tell_server(cancel)

    def _tell_client(self, lines: bytes) -> None:
        try:
            with self._to_client:
                while lines:
                    lines = lines[os.write(1, lines) :]
            self._moved_at = time.monotonic()
        except OSError as error:
            self._shutdown.request(ExitStatus.FAILED, f"standard output: {error}")

    def _tell_server(self, line: bytes) -> None:
        """Under the lock."""
        try:
            while line:
                line = line[os.write(self._input, line) :]
                self._moved_at = time.monotonic()
        except BrokenPipeError:  # a server that reads no more can as well end
            self._end_server(SILENT_S)

    def _hang_up(self) -> None:
        """Ends the server's input, with the descriptor kept open: a thread may be writing to it."""
        with open(os.devnull, "wb") as nothing:
            os.dup2(nothing.fileno(), self._input)

    def _end_server(self, patience_s: float) -> None:
        """Has the server and all that it started end."""
        self._hang_up()
        with suppress(subprocess.TimeoutExpired):
            self._server.wait(patience_s)
        with suppress(OSError):  # nobody is left of the group
            os.killpg(self._server.pid, signal.SIGTERM)
            deadline = time.monotonic() + SIGNALLED_S
            while time.monotonic() < deadline:
                self._server.poll()  # one that ended is of the group until then
                os.killpg(self._server.pid, 0)
                time.sleep(0.01)
            os.killpg(self._server.pid, signal.SIGKILL)
        with suppress(subprocess.TimeoutExpired):
            self._server.wait(1.0)
