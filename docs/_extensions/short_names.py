"""Names in docstrings lead to what they name, from any module: `RecordStore.write`, `Rank`."""

from typing import Any

from docutils import nodes
from sphinx.addnodes import pending_xref
from sphinx.application import Sphinx
from sphinx.environment import BuildEnvironment


def setup(app: Sphinx) -> dict[str, Any]:
    """Look a name up by its end where Sphinx has not found it as it stands."""
    app.connect("missing-reference", _found_by_its_end)
    return {"parallel_read_safe": True, "parallel_write_safe": True}


def _found_by_its_end(
    app: Sphinx, env: BuildEnvironment, reference: pending_xref, content: nodes.Node
) -> nodes.Node | None:
    name = reference["reftarget"]
    # A word in lower case alone is a parameter, or a method of what the text speaks of.
    if reference.get("refdomain") != "py" or name == name.lower():
        return None
    reference["refspecific"] = True
    page, kind = reference["refdoc"], reference["reftype"]
    domain = env.domains.python_domain
    return domain.resolve_xref(env, page, app.builder, kind, name, reference, content)
