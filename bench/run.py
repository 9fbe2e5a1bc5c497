"""Measure the extension module beside the plain class: a table, and with --json FILE the same figures for a program."""

import argparse
import json
import os
import platform
import sys
import time
from pathlib import Path

import calls
import event_loop
import memory
import whole_state
from figures import heading

SECTIONS = [
    (
        "Each operation: how many times as fast, or how many times the floor",
        "plain/floor",
        calls.operation_figures,
    ),
    ("Threads at once: how many times as many calls", "plain", calls.thread_figures),
    ("Delay added to an event loop: how many times less", "plain", event_loop.figures),
    ("Summary: how many times as fast", "plain", whole_state.summary_figures),
    ("Start and flush: how many times as fast", "plain", whole_state.storage_figures),
    ("Memory: what part of the plain class's", "plain", memory.figures),
    (
        "Growth from 100 keys to 10,000: the exponent, 0 constant, 1 linear",
        "at 100 keys",
        whole_state.growth_figures,
    ),
]


def main() -> None:
    """Run every section in turn."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the figures there too")
    arguments = parser.parse_args()
    setting = {
        "python": platform.python_version(),
        "cpus": os.cpu_count(),
        "switch_interval_ms": sys.getswitchinterval() * 1e3,
    }
    print(", ".join(f"{name} {value}" for name, value in setting.items()))
    start = time.perf_counter()
    report = {}
    for title, other, measure in SECTIONS:
        figures = measure()
        report[title] = [figure.as_json() for figure in figures]
        print(heading(title, other), *(figure.line() for figure in figures), sep="\n", flush=True)
    missed = sum(figure["met"] is False for figures in report.values() for figure in figures)
    print(f"\n{missed} missed; measured in {time.perf_counter() - start:.0f} s")
    if arguments.json:
        arguments.json.write_text(json.dumps(setting | {"sections": report}, indent=2) + "\n")


if __name__ == "__main__":
    main()
