"""Formulas as MathML, which browsers draw themselves: no script, no picture, nothing to load.

docutils, on which Sphinx stands, turns the TeX of a formula into it.
"""

from typing import Any

from docutils import nodes
from docutils.utils.math.latex2mathml import tex2mathml
from sphinx.application import Sphinx


def setup(app: Sphinx) -> dict[str, Any]:
    """Add the renderer, by the name ``mathml``."""
    app.add_html_math_renderer("mathml", (_within_text, None), (_by_itself, None))
    return {"parallel_read_safe": True, "parallel_write_safe": True}


def _within_text(translator: Any, node: nodes.math) -> None:
    translator.body.append(tex2mathml(node.astext()))
    raise nodes.SkipNode


def _by_itself(translator: Any, node: nodes.math_block) -> None:
    translator.body.append(f'<div class="math">{tex2mathml(node.astext(), as_block=True)}</div>')
    raise nodes.SkipNode
