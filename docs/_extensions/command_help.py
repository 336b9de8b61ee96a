"""The directive ``command-help``: what the command and each of its subcommands say with --help."""

import argparse
from typing import Any

from docutils import nodes
from sphinx.application import Sphinx
from sphinx.util.docutils import SphinxDirective

from quorvane.cli.command_line import _parser

WIDTH = 80


class CommandHelp(SphinxDirective):
    """A section for each subcommand, subcommands of subcommands included."""

    def run(self) -> list[nodes.Node]:
        """The sections, in the order of the command's own help."""
        parser = _parser()
        return [_text_of(parser), *(_section(each) for each in _leaves(parser))]


def setup(app: Sphinx) -> dict[str, Any]:
    """Add the directive."""
    app.add_directive("command-help", CommandHelp)
    return {"parallel_read_safe": True, "parallel_write_safe": True}


def _leaves(parser: argparse.ArgumentParser) -> list[argparse.ArgumentParser]:
    """The parsers of all subcommands that have none of their own."""
    below = [
        each
        for action in parser._actions
        if isinstance(action, argparse._SubParsersAction)
        for each in action.choices.values()
    ]
    return [leaf for each in below for leaf in (_leaves(each) or [each])]


def _section(parser: argparse.ArgumentParser) -> nodes.section:
    section = nodes.section(ids=[nodes.make_id(parser.prog)], names=[parser.prog])
    section += nodes.title("", "", nodes.literal("", parser.prog))
    section += _text_of(parser)
    return section


def _text_of(parser: argparse.ArgumentParser) -> nodes.literal_block:
    """As wide as on a page, whatever terminal the site is built in, and in no colours."""
    given = parser.formatter_class
    parser.formatter_class = lambda prog: given(prog, width=WIDTH)  # type: ignore[assignment]
    parser.color = False  # type: ignore[attr-defined]
    text = parser.format_help()
    return nodes.literal_block(text, text, language="none")
