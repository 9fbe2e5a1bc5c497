"""The daemon's standard streams: a thread for each, as either may have to wait."""

import asyncio
import os
import sys
import threading
from collections.abc import Callable, Iterator
from io import BufferedReader
from queue import SimpleQueue

from quillet.exit_status import ExitStatus
from quillet.hosting.shutdown import Shutdown
from quillet.protocol.messages import MAX_MESSAGE_BYTES

MAX_OPEN = 256  # lines read and not answered yet; reading waits when there are so many
SETTLING_S = 5.0  # how long a cancelled call may go on after the input's end
WRITING_S = 0.5  # how long an answer that is being written may take when the daemon ends


class StandardStreams:
    """Hands the lines that are read to the loop, and writes what is answered.

    Each line is answered once, be it with None; that makes room for another one. The daemon ends
    when all that was read is answered, or a stream fails. Before that, `settle` may wait for calls
    that go on although nobody asks for their answers any more.
    """

    def __init__(self, settle: Callable[[], None], shutdown: Shutdown) -> None:
        self._settle = settle
        self._shutdown = shutdown
        self._loop = asyncio.get_running_loop()
        self._room = threading.Semaphore(MAX_OPEN)
        self._answers: SimpleQueue[bytes] = SimpleQueue()
        self._writing = threading.Lock()
        # Handlers, and what they start, find nothing to read, and print to standard error.
        self._input, self._output = os.dup(0), os.dup(1)
        nothing = os.open(os.devnull, os.O_RDONLY)
        os.dup2(nothing, 0)
        os.close(nothing)
        os.dup2(2, 1)
        sys.stdout = sys.stderr

    def start(self, receive: Callable[[bytes], None]) -> None:
        """Starts the threads, which end with the process; `receive` is given each line."""
        threading.Thread(target=self._read, args=[receive], name="reader", daemon=True).start()
        threading.Thread(target=self._write, name="writer", daemon=True).start()

    def answer(self, line: bytes | None) -> None:
        """Queues a line to be written, unless it is None; either way its request is answered."""
        if line is None:
            self._room.release()
        else:
            self._answers.put(line)

    def stop(self) -> None:
        """Lets the answer that is being written finish, and no other one start."""
        self._writing.acquire(timeout=WRITING_S)

    def _read(self, receive: Callable[[bytes], None]) -> None:
        try:
            os.set_blocking(self._input, True)  # for both sides to wait
            with open(self._input, "rb", closefd=False) as source:
                for line in _lines(source):
                    self._room.acquire()
                    self._loop.call_soon_threadsafe(receive, line)
            for _ in range(MAX_OPEN):
                self._room.acquire()
            settling = threading.Thread(target=self._settle, name="settling", daemon=True)
            settling.start()
            settling.join(SETTLING_S)
            self._shutdown.request(ExitStatus.OK)
        except Exception as error:
            self._shutdown.request(ExitStatus.FAILED, f"standard input: {error}")

    def _write(self) -> None:
        try:
            os.set_blocking(self._output, True)
            while True:
                rest = self._answers.get()
                with self._writing:
                    while rest:
                        rest = rest[os.write(self._output, rest) :]
                self._room.release()
        except Exception as error:
            self._shutdown.request(ExitStatus.FAILED, f"standard output: {error}")


def _lines(source: BufferedReader) -> Iterator[bytes]:
    """The lines; of one that is too long, no more is kept than shows it."""
    limit = MAX_MESSAGE_BYTES + 2
    while line := source.readline(limit):
        yield line
        while len(line) == limit and not line.endswith(b"\n"):
            line = source.readline(limit)
