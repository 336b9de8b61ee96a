"""A sweep's table as a page that needs nothing else."""

from __future__ import annotations

import html
import math
from typing import Any

_PAGE = """\
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{title}</title>
<style>
body {{ font: 15px/1.4 system-ui, sans-serif; margin: 1.5rem; color: #1c1c1c; }}
h1 {{ font-size: 1.3rem; }}
.wide {{ overflow-x: auto; }}
table {{ border-collapse: collapse; font-size: .85rem; font-variant-numeric: tabular-nums; }}
th, td {{ padding: .25rem .6rem; border-bottom: 1px solid #ddd; text-align: left; }}
th {{ white-space: nowrap; border-bottom: 2px solid #888; }}
.number {{ text-align: right; white-space: nowrap; }}
.error {{ color: #a01818; }}
@media print {{ body {{ margin: 0; }} table {{ font-size: .6rem; }} }}
</style>
</head>
<body>
<h1>{title}</h1>
<p>{text}</p>
<div class="wide">
<table>
<thead><tr>{head}</tr></thead>
<tbody>
{rows}
</tbody>
</table>
</div>
</body>
</html>
"""


def report_of(found: Any, title: str) -> str:
    """The page of a sweep's table; whatever is in it is text."""
    failed = int((found["error"] != "").sum())
    text = f"{len(found)} configurations"
    if failed:
        text += f", of which {failed} failed"
    columns = [name for name in found.columns if failed or name != "error"]
    head = "".join(f"<th>{html.escape(str(name))}</th>" for name in columns)
    rows = (
        "<tr>" + "".join(_cell(name, row[name]) for name in columns) + "</tr>"
        for row in found.to_dict(orient="records")
    )
    return _PAGE.format(title=html.escape(title), text=text, head=head, rows="\n".join(rows))


def _cell(name: str, value: Any) -> str:
    if isinstance(value, float):
        shown = "" if math.isnan(value) else f"{value:.4g}"
        return f'<td class="number">{shown}</td>'
    if isinstance(value, int):
        return f'<td class="number">{value}</td>'
    kind = ' class="error"' if name == "error" and value else ""
    return f"<td{kind}>{html.escape(str(value))}</td>"
