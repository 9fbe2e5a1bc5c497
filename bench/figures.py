"""One measured figure, and the table of all of them."""

from dataclasses import asdict, dataclass
from typing import Any


@dataclass
class Figure:
    """A ratio, the two values behind it, and the bound it is meant to keep."""

    subject: str
    component: float
    other: float
    unit: str
    ratio: float
    at_least: float | None = None
    at_most: float | None = None

    @property
    def met(self) -> bool | None:
        """Whether the bound is kept; None when there is none."""
        if self.at_least is not None:
            return self.ratio >= self.at_least
        return None if self.at_most is None else self.ratio <= self.at_most

    @property
    def verdict(self) -> str:
        """The bound in words, and whether it is kept."""
        if self.met is None:
            return ""
        bound = (
            f"at least {self.at_least:g}"
            if self.at_least is not None
            else f"at most {self.at_most:g}"
        )
        return f"{bound}: {'met' if self.met else 'MISSED'}"

    def line(self) -> str:
        """The figure's line of the table."""
        values = f"{_short(self.component):>12} {_short(self.other):>12} {self.unit:<6}"
        return f"  {self.subject:<58} {values} {self.ratio:>9.2f}   {self.verdict}".rstrip()

    def as_json(self) -> dict[str, Any]:
        """Everything in the line, for a program."""
        return asdict(self) | {"met": self.met}


def heading(title: str, other: str) -> str:
    """The two lines above a section's figures."""
    return f"\n{title}\n  {'':<58} {'component':>12} {other:>12} {'':<6} {'ratio':>9}"


def _short(value: float) -> str:
    return f"{value:,.0f}" if value >= 1_000 else f"{value:.3g}"
