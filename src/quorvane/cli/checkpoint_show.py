"""What a checkpoint holds, for people."""

from __future__ import annotations

from typing import Any

from quorvane.cli.checkpoint import FORMAT, HEAD
from quorvane.cli.checkpoint_contents import ContentsError, Head, format_of, head_from
from quorvane.cli.checkpoint_place import CheckpointPlace
from quorvane.cli.errors import DataError
from quorvane.cli.summary import format_rows
from quorvane.counting import counted


def described_checkpoint(place: CheckpointPlace) -> str:
    """The run, how far it has come, its options, when it was kept, and how large that is.

    Raises
    ------
    DataError
        There is no checkpoint, it cannot be read, or it is of another version.
    """
    place.check_present()
    try:
        with place.reporting():
            store = place.open()
            record, size = _loaded(place, store), _size(store)
        number = format_of(record)
        if number != FORMAT:
            raise DataError(
                f"{place}: the checkpoint has format {number}, expected {FORMAT}: it was made by "
                f"another version and cannot be resumed"
            )
        head = head_from(record)
    except ContentsError as error:
        raise DataError(f"{place}: the checkpoint makes no sense: {error}") from error
    return f"{place}\n" + format_rows(_rows(head, size))


def _rows(head: Head, size: int) -> list[tuple[str, str]]:
    about, options = head.about, head.identity["options"]
    far = f"{head.next_day:,} of {counted(int(about.get('days', 0)), 'day')}"
    if about.get("last day"):
        far += f", the last one {about['last day']}"
    told = [(name, str(about[name])) for name in about if name not in ("days", "last day", "saved")]
    return [
        *told,
        *((name, _shown(value)) for name, value in options.items() if name != "functions"),
        ("computed", far),
        ("kept", str(about.get("saved", ""))),
        ("size", f"{size:,} bytes"),
    ]


def _shown(value: Any) -> str:
    if isinstance(value, bool):
        return "yes" if value else "no"
    return str(value)


def _loaded(place: CheckpointPlace, store: Any) -> Any:
    try:
        return store.load(HEAD)
    except place.stores.RecordNotFoundError:
        raise DataError(f"{place}: holds no run of a replay") from None


def _size(store: Any) -> int:
    """The bytes of all its records."""
    return sum(version.size for name in store.names() for version in store.versions(name))
