"""A page of HTML that needs nothing else: no script, and nothing that is loaded."""

from __future__ import annotations

import html

from quorvane.evaluation.report.text import drawable

_DOCUMENT = """\
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy"
 content="default-src 'none'; style-src 'unsafe-inline'; img-src data:">
<link rel="icon" href="data:,">
<title>{title}</title>
<style>
{style}</style>
</head>
<body>
{body}
</body>
</html>
"""


def document(title: object, style: str, body: str) -> str:
    """The text of the page; the title is escaped here, the body is as it is to stand."""
    return _DOCUMENT.format(title=escaped(title), style=style, body=body)


def escaped(text: object) -> str:
    """Text, whatever is in it."""
    return html.escape(drawable(str(text)))
