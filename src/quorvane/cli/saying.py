"""What the command says on standard output, and notes on standard error."""

from __future__ import annotations

import os
import sys
from typing import TextIO

from quorvane.cli.errors import DataError, one_line
from quorvane.cli.passwords import without_passwords


def say(text: str) -> None:
    """Print ``text``; what the output's encoding lacks is shown as an escape.

    That nobody reads any more, as after ``| head``, is no failure.
    """
    stream = sys.stdout
    if stream is None:  # The process was started with its standard output closed.
        return
    encoding = stream.encoding or "utf-8"
    try:
        print(encodable(text, encoding), file=stream, flush=True)
    except BrokenPipeError:
        _discard_rest(stream)
    except OSError as error:
        _discard_rest(stream)
        raise DataError(f"cannot write to standard output: {error.strerror}") from error


def encodable(text: object, encoding: str = "utf-8") -> str:
    """``text`` with what the encoding lacks, such as odd bytes of a file's name, as escapes."""
    return str(text).encode(encoding, "backslashreplace").decode(encoding)


def note(text: str) -> None:
    """Print ``text`` as one line on standard error; that it cannot be shown is no failure.

    Of an argument that was not taken for an address its password is left out all the same.
    """
    stream = sys.stderr
    if stream is None:
        return
    try:
        print(one_line(without_passwords(text)), file=stream, flush=True)
    except OSError:
        _discard_rest(stream)


def _discard_rest(stream: TextIO) -> None:
    """Lead what is still buffered nowhere: Python would try to write it again as it ends."""
    nowhere = os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, stream.fileno())
    os.close(nowhere)
