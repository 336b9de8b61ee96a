"""A sweep's table as a page that needs nothing else."""

from __future__ import annotations

import math
from typing import Any

from quorvane.counting import counted
from quorvane.evaluation.report.document import document, escaped

_STYLE = """\
body { font: 15px/1.4 system-ui, sans-serif; margin: 1.5rem; color: #22262b; }
h1 { font-size: 1.3rem; }
.wide { overflow-x: auto; }
table { border-collapse: collapse; font-size: .85rem; font-variant-numeric: tabular-nums; }
th, td { padding: .25rem .6rem; border-bottom: 1px solid #e3e6ea; text-align: left; }
th { white-space: nowrap; border-bottom: 2px solid #5f6773; }
.number { text-align: right; white-space: nowrap; }
.error { color: #c23b4e; }
@media print { body { margin: 0; } table { font-size: .6rem; } }
"""

_BODY = """\
<h1>{title}</h1>
<p>{text}</p>
<div class="wide">
<table>
<thead><tr>{head}</tr></thead>
<tbody>
{rows}
</tbody>
</table>
</div>"""


def report_of(found: Any, title: str) -> str:
    """The page of a sweep's table; whatever is in it is text."""
    failed = int((found["error"] != "").sum())
    text = counted(len(found), "configuration")
    if failed:
        text += f", of which {failed:,} failed"
    columns = [name for name in found.columns if failed or name != "error"]
    head = "".join(f"<th>{escaped(name)}</th>" for name in columns)
    rows = (
        "<tr>" + "".join(_cell(name, row[name]) for name in columns) + "</tr>"
        for row in found.to_dict(orient="records")
    )
    body = _BODY.format(title=escaped(title), text=text, head=head, rows="\n".join(rows))
    return document(title, _STYLE, body)


def _cell(name: str, value: Any) -> str:
    if isinstance(value, float):
        shown = "" if math.isnan(value) else f"{value:.4g}"
        return f'<td class="number">{shown}</td>'
    if isinstance(value, int):
        return f'<td class="number">{value}</td>'
    kind = ' class="error"' if name == "error" and value else ""
    return f"<td{kind}>{escaped(value)}</td>"
