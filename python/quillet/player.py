"""Plays lines of calls to the daemon and prints the answers."""

import asyncio
import threading
import time
from collections.abc import Callable
from typing import TextIO

from quillet.call_lines import parse_line, read_lines
from quillet.daemon.tool_pipeline import Answer, ToolPipeline
from quillet.diagnostics import complain
from quillet.rendering import as_heading, as_json, as_text

PRINTING_S = 0.5  # how long a line that is being printed may take when the program ends


class Player:
    """Gives each line's call to a pipeline, from a thread that `stop` leaves where it is."""

    def __init__(self, pipeline: ToolPipeline, text_wanted: bool) -> None:
        self._pipeline = pipeline
        self._show: Callable[[int, str, Answer], str] = as_text if text_wanted else as_json
        self._printing = threading.Lock()

    def play(self, source: TextIO) -> bool:
        """Plays all lines; returns whether each was a call and each answer was printed."""
        all_well = True
        with asyncio.Runner() as runner:
            for number, text in enumerate(read_lines(source), 1):
                try:
                    self._play_line(runner, number, text)
                except BrokenPipeError:
                    return False  # nobody reads on
                except OSError as error:
                    complain(f"line {number}: the answer cannot be printed: {error}")
                    return False
                except Exception as error:  # no line ends the program
                    complain(f"line {number}: {error}")
                    all_well = False
        return all_well

    def stop(self) -> None:
        """Lets no further answer be printed, and those that are be whole.

        What is printed when this returns has been reported to the tracker.
        """
        self._printing.acquire(timeout=PRINTING_S)

    def _play_line(self, runner: asyncio.Runner, number: int, text: str) -> None:
        match parse_line(text):
            case {"wait_s": seconds}:
                time.sleep(seconds)
            case {"tool": tool, "arguments": arguments}:
                answer = runner.run(self._pipeline.call(tool, arguments))
                self._print(self._show(number, tool, answer))
            case None if self._show is as_text:
                self._print(as_heading(text))

    def _print(self, text: str) -> None:
        with self._printing:
            print(text, flush=True)
