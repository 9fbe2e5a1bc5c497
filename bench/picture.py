"""The figures as a picture for the README, readable on a light page and on a dark one."""

from typing import Any, TextIO

import matplotlib
from figures import Figure, short

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

CALLS = "Each operation: how many times as fast, or how many times the floor"
DELAYS = "Delay added to an event loop by 1,000 tools and 10,000 keys: how many times less"
INK, MODULE, PLAIN, FLOOR = "#7a828e", "#2f81f7", "#b1bac4", "#d29922"
FLOOR_SUBJECT = "over the floor"
STYLE: dict[str, Any] = {
    **dict.fromkeys(["text.color", "axes.edgecolor", "xtick.color", "ytick.color"], INK),
    **dict.fromkeys(["axes.spines.top", "axes.spines.right", "axes.spines.left"], False),
    "axes.titlepad": 12,
    "font.size": 11,
    "svg.fonttype": "none",  # text, which can be read out and searched
    "svg.hashsalt": "figures",
}


def draw(report: dict[str, list[Figure]], file: TextIO) -> None:
    """Draw as SVG what a call costs and of what an event loop waits longer."""
    with matplotlib.rc_context(STYLE):
        form: dict[str, Any] = {"figsize": (9.2, 6.8), "height_ratios": [7, 3]}
        figure, (calls, delays) = pyplot.subplots(2, 1, layout="constrained", **form)
        figure.get_layout_engine().set(h_pad=0.15)  # keeps the lower title off the upper numbers
        against_plain = [f for f in report[CALLS] if ", over " not in f.subject]
        floors = [f.other for f in report[CALLS] if FLOOR_SUBJECT in f.subject]
        _bars(calls, against_plain, "A call, in nanoseconds")
        floor = sum(floors) / len(floors)
        calls.axvline(floor, color=FLOOR, label="a C method that does nothing")
        calls.legend(frameon=False, loc="upper right")
        title = "Delay added to an event loop at 10,000 keys, in milliseconds"
        _bars(delays, report[DELAYS], title)
        figure.savefig(file, format="svg", transparent=True, metadata={"Date": None})
        pyplot.close(figure)


def _bars(axes: Any, figures: list[Figure], title: str) -> None:
    places = range(len(figures))
    module = [(f.component, f.ratio is not None) for f in figures]
    values = {"the module": module, "plain Python": [(f.other, True) for f in figures]}
    for (label, bars), offset, colour in zip(values.items(), (-0.2, 0.2), (MODULE, PLAIN)):
        lengths = [length if known else 0 for length, known in bars]
        drawn = axes.barh([p + offset for p in places], lengths, 0.38, color=colour, label=label)
        texts = [short(length) if known else "too little to measure" for length, known in bars]
        axes.bar_label(drawn, texts, padding=3)
    axes.set_yticks(places, [f.subject for f in figures])
    axes.tick_params(left=False)
    axes.invert_yaxis()
    axes.margins(x=0.08)
    axes.set_title(title, loc="left", fontweight="bold")
