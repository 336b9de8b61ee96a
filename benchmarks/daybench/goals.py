"""One line of the table: what was compared, what came out, and what we want."""

from dataclasses import asdict, dataclass

from daybench.timing import Comparison


@dataclass
class Line:
    """A measured line. `ratio` is peer / ours unless `smaller_is_better` says it is a cost.

    `parts` are the seconds that a difference was made of.
    """

    group: str
    case: str
    what: str
    comparison: Comparison
    goal: float | None = None
    structures: int | None = None
    smaller_is_better: bool = False
    parts: dict[str, float] | None = None

    @property
    def met(self):
        """Whether the median reaches the goal; None where the line is information only."""
        if self.goal is None:
            return None
        if self.smaller_is_better:
            return self.comparison.ratio <= self.goal
        return self.comparison.ratio >= self.goal

    def as_dict(self):
        """Plain values for JSON."""
        return {**asdict(self), "met": self.met}
