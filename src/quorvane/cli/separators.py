"""Which character stands between the columns of a CSV file."""

from __future__ import annotations

import csv

SEPARATORS = (",", ";", "\t", "|")
"""What is looked for; the comma wins where nothing tells them apart."""


def find_separator(header: str, row: str) -> str:
    """The separator of a file, from the texts of its header and of the first row below.

    That is the one that cuts both into the same number of cells, and into the most. Where none
    does, the header alone decides, so that the row can be said to be at fault.
    """
    widths = {each: (_width(header, each), _width(row, each)) for each in SEPARATORS}
    fitting = [each for each in SEPARATORS if widths[each][0] == widths[each][1] > 1]
    return max(fitting or SEPARATORS, key=lambda each: widths[each][0])


def _width(text: str, separator: str) -> int:
    try:
        return len(next(csv.reader([text], delimiter=separator), []))
    except csv.Error:  # A cell that is too long, say: the reading itself will name it.
        return 0
