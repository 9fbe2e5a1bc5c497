"""Measure the extension module beside the plain class, and print a table section by section."""

import argparse
import json
import os
import platform
import sys
import time

import bulk
import calls
import event_loop
import growth
import guard
import memory
import picture
import start
import threads
from figures import heading

SECTIONS = [
    (picture.CALLS, "other", calls.figures),
    ("Threads at once: how many times as many calls", "plain", threads.figures),
    (picture.DELAYS, "plain", event_loop.figures),
    ("The same at 100,000 keys beside 1,000", "at 1,000", event_loop.growth_figures),
    (bulk.TITLE, "plain", bulk.figures),
    ("Start, 1,000 tools and 10,000 keys: how many times as fast", "plain", start.figures),
    ("Memory: what part of the plain class's", "plain", memory.figures),
    ("A call through a guard, and through a loop that passes all on", "loop", guard.figures),
    (growth.TITLE, "at 100", growth.figures),
]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--json", type=argparse.FileType("w"), metavar="FILE", help="write the figures there"
    )
    parser.add_argument(
        "--plot", type=argparse.FileType("w"), metavar="FILE.svg", help="draw them there"
    )
    arguments = parser.parse_args()
    setting = {"python": platform.python_version(), "cpus": os.cpu_count()}
    setting["switch_interval_ms"] = sys.getswitchinterval() * 1e3
    print(", ".join(f"{name} {value}" for name, value in setting.items()))
    begun = time.perf_counter()
    report = {}
    for title, other, measure in SECTIONS:
        print(heading(title, other), flush=True)
        report[title] = []
        for figure in measure():
            print(figure.line(), flush=True)
            report[title].append(figure)
    missed = sum(figure.met is False for figures in report.values() for figure in figures)
    print(f"\n{missed} missed; measured in {time.perf_counter() - begun:.0f} s")
    if arguments.json:
        sections = {title: [f.as_json() for f in figures] for title, figures in report.items()}
        arguments.json.write(json.dumps(setting | {"sections": sections}, indent=2) + "\n")
    if arguments.plot:
        picture.draw(report, arguments.plot)


if __name__ == "__main__":
    main()
