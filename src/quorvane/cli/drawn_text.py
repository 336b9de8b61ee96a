"""Text as a picture can hold it."""

from __future__ import annotations

import re

# What XML, and so an SVG file, cannot hold: most control characters, lone surrogates, two others.
_NOT_DRAWN = re.compile(r"[\x00-\x08\x0b\x0c\x0e-\x1f\ud800-\udfff\ufffe\uffff]")


def drawable(text: str) -> str:
    """``text`` with a replacement character for each one that no picture can hold."""
    return _NOT_DRAWN.sub("\N{REPLACEMENT CHARACTER}", text)
