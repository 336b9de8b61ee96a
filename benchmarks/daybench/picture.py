"""The table as a picture: how each line stands to its goal."""

from pathlib import Path

from daybench.peers import load

_MET, _MISSED = "#2b7a4b", "#b5432a"

# Multiples beyond are drawn as this one, lest a single bar take all the room.
_LARGEST_MULTIPLE = 20.0


def draw(path, machine, lines):
    """Draw one bar for each line that has a goal, as multiples of that goal, quartiles as whiskers.

    Raises PeerAbsent without matplotlib.
    """
    load("matplotlib").use("Agg")
    pyplot = load("matplotlib.pyplot")

    judged = [line for line in lines if line.goal is not None][::-1]
    figure, axes = pyplot.subplots(figsize=(9.5, 1.2 + 0.27 * len(judged)))
    for row, line in enumerate(judged):
        low, middle, high = _multiples(line)
        axes.barh(row, middle - 1, left=1, color=_MET if line.met else _MISSED, height=0.6)
        axes.plot([low, high], [row, row], color="black", linewidth=1)
        axes.text(max(middle, 1.0) * 1.06, row, _label(line), va="center", fontsize=7)
    axes.set_yticks(range(len(judged)))
    axes.set_yticklabels([f"{line.group}: {line.case}, {line.what}" for line in judged], fontsize=7)
    axes.set_xscale("log")
    axes.margins(y=0.01)
    left, right = axes.get_xlim()
    axes.set_xlim(left, right * 1.8)
    axes.axvline(1.0, color="black", linewidth=1)
    axes.set_xlabel("multiple of the goal; right of the line is better than the goal")
    axes.set_title(
        f"{machine['processor']}, Python {machine['python']}, NumPy {machine['numpy']}", fontsize=9
    )
    axes.spines[["top", "right"]].set_visible(False)
    figure.tight_layout()
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=150)


def _multiples(line):
    found = line.comparison
    figures = [max(figure, 1e-3) for figure in (found.low, found.ratio, found.high)]
    if line.smaller_is_better:
        multiples = sorted(line.goal / figure for figure in figures)
    else:
        multiples = [figure / line.goal for figure in figures]
    return [min(multiple, _LARGEST_MULTIPLE) for multiple in multiples]


def _label(line):
    return f"{line.comparison.ratio:.3g} (goal {line.goal:g})"
