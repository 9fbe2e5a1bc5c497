"""Saves the tools' health from a thread of its own, which may wait for the database."""

import logging
import threading
import time
from typing import Self

from quillet.tool_handlers.health import ToolHealthTracker

PERIOD_S = 2.0
LAST_FLUSH_S = 0.8  # a disk or another process may take longer; a client kills 2 s after SIGTERM

logger = logging.getLogger(__name__)


class Flusher:
    """Flushes a tracker now and then while it is entered, and once more when it is left.

    `saved` says how the latest time ended; `saved_at`, when all was last saved, in seconds since
    1970.
    """

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self.saved = True
        self.saved_at = time.time()
        self._tracker = tracker
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._work, name="flusher", daemon=True)

    def __enter__(self) -> Self:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join(LAST_FLUSH_S)
        if self._thread.is_alive():
            self.saved = False
            logger.warning("Could not save the tool health within %g s at the end", LAST_FLUSH_S)

    def _work(self) -> None:
        while not self._stop.wait(PERIOD_S):
            self._flush()
        self._flush()

    def _flush(self) -> None:
        try:
            if self._tracker.has_unsaved_changes:
                self._tracker.flush()
            self.saved, self.saved_at = True, time.time()
        except Exception as error:
            self.saved = False
            logger.warning("Could not save the tool health this time: %s", error)
