"""One measured figure, and its line of the table."""

from dataclasses import asdict, dataclass
from typing import Any


@dataclass
class Figure:
    """Two values and their ratio, with what it is meant to be; None where it cannot be measured."""

    subject: str
    component: float
    other: float
    unit: str
    ratio: float | None
    at_least: float | None = None
    at_most: float | None = None
    component_under: float | None = None

    @property
    def met(self) -> bool | None:
        """Whether the aim is reached; None when there is none."""
        if self.component_under is not None:
            return self.component < self.component_under
        if self.at_least is not None:
            return self.ratio is not None and self.ratio >= self.at_least
        return self.at_most and self.ratio is not None and self.ratio <= self.at_most

    @property
    def aim(self) -> str:
        """The aim in words."""
        if self.component_under is not None:
            return f"under {self.component_under:g} {self.unit}"
        if self.at_least is not None:
            return f"at least {self.at_least:g}"
        return f"at most {self.at_most:g}"

    def line(self) -> str:
        """The figure's line of the table, of at most 100 columns."""
        values = f"{short(self.component):>9} {short(self.other):>9} {self.unit:<5}"
        if self.ratio is None:
            return f"  {self.subject:<42} {values} below what can be measured"
        verdict = "" if self.met is None else f"{self.aim} {'met' if self.met else 'MISSED'}"
        return f"  {self.subject:<42} {values} {self.ratio:>7.2f}  {verdict}".rstrip()

    def as_json(self) -> dict[str, Any]:
        """Everything in the line, for a program."""
        return asdict(self) | {"met": self.met}


def heading(title: str, other: str) -> str:
    """The two lines above a section's figures; `other` says what the component stands beside."""
    return f"\n{title}\n  {'':<42} {'component':>9} {other:>9} {'':<5} {'ratio':>7}"


def short(value: float) -> str:
    """A value with three digits, or in whole thousands."""
    return f"{value:,.0f}" if value >= 1_000 else f"{value:.3g}"
