"""The file llms.txt at the root of the site: what each page is about, in the form of llmstxt.org.

It is made of the pages themselves: their titles, and the first sentence of each.
"""

import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from docutils import nodes
from sphinx.application import Sphinx
from sphinx.environment import BuildEnvironment
from sphinx.util.logging import getLogger

_log = getLogger(__name__)


def setup(app: Sphinx) -> dict[str, Any]:
    """Write the file when the pages are written."""
    app.connect("build-finished", _write)
    return {"parallel_read_safe": True, "parallel_write_safe": True}


def _write(app: Sphinx, error: Exception | None) -> None:
    if error is None and app.builder.format == "html":
        text = text_of(app.env, app.config.root_doc, app.builder.get_target_uri)
        Path(app.outdir, "llms.txt").write_text(text, encoding="utf-8")


def text_of(env: BuildEnvironment, root: str, address_of: Any) -> str:
    """A title, what the whole is in a quotation, and a section of links for each part."""
    lines = [f"# {env.titles[root].astext()}", "", f"> {first_sentence(env, root)}"]
    for part in env.toctree_includes[root]:
        lines += ["", f"## {env.titles[part].astext()}", ""]
        lines += [
            f"- [{env.titles[page].astext()}]({address_of(page)}): {first_sentence(env, page)}"
            for page in _pages_of(env, part)
        ]
    return "\n".join([*lines, ""])


def first_sentence(env: BuildEnvironment, page: str) -> str:
    """The first sentence of a page; a warning, and nothing, where it has none."""
    for paragraph in env.get_doctree(page).findall(nodes.paragraph):
        # What sphinx-gallery puts in front of an example says nothing of it.
        if not isinstance(paragraph.parent, nodes.Admonition | nodes.entry):
            text = " ".join(paragraph.astext().split())
            return re.split(r"(?<=[.!?]) ", text, maxsplit=1)[0].rstrip(":")
    _log.warning("a page needs a first sentence, which llms.txt tells", location=page)
    return ""


def _pages_of(env: BuildEnvironment, part: str) -> Iterator[str]:
    """A part's own page and all below it, each once, in the order of the tables of contents."""
    yield part
    for page in env.toctree_includes.get(part, []):
        yield from _pages_of(env, page)
