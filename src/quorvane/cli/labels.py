"""Labels of structures, for functions of an expression that go by groups."""

from __future__ import annotations

from pathlib import Path

from quorvane.cli.errors import DataError, did_you_mean, shown
from quorvane.cli.files import ending_of
from quorvane.cli.limits import check_name_length
from quorvane.cli.named_rows import named_rows

LABEL_ENDINGS = (".csv", ".parquet")

Labels = dict[str, dict[str, str]]


def read_labels(path: Path, keys: tuple[str, ...] | None) -> Labels:
    """A mapping from each further column's name to the label of each structure.

    The first column holds the keys; an empty cell is no label. With None for the structures' keys
    others may still come, and any key is taken.

    Raises
    ------
    DataError
        There is no further column, a key comes twice, or it is that of no structure.
    """
    ending_of(path, LABEL_ENDINGS, "a file of labels")
    known = None if keys is None else frozenset(keys)
    with named_rows(path, "a file of labels") as rows:
        if len(rows.header) < 2 or len(set(rows.header)) < len(rows.header):
            raise DataError(
                f"{rows}: expected a header of key and the names of labels, each once, "
                f"got {shown(','.join(rows.header))}"
            )
        labels: Labels = {name: {} for name in rows.header[1:]}
        seen: set[str] = set()
        for key, *cells in rows:
            if known is not None and key not in known:
                raise DataError(
                    f"{rows}: there is no structure {shown(key)}{did_you_mean(key, known)}"
                )
            if key in seen:
                raise DataError(f"{rows}: duplicate key {shown(key)}, expected each key once")
            seen.add(key)
            for name, cell in zip(labels, cells, strict=True):
                check_name_length(rows, "a label", len(cell))
                if cell:
                    labels[name][key] = cell
    return labels
