"""Every place of the sources where something can be changed, found by a parser."""

from pathlib import Path

import tree_sitter_cpp
import tree_sitter_python
from tree_sitter import Language, Parser

from mutants import cpp_rules, python_rules
from mutants.mutant import Mutant, Source

SOURCES = ("cpp/**/*.cpp", "cpp/**/*.hpp", "src/quorvane/**/*.py")
TESTS = "cpp/tests/"

_RULES = {"cpp": cpp_rules, "python": python_rules}
_PARSERS = {
    "cpp": Parser(Language(tree_sitter_cpp.language())),
    "python": Parser(Language(tree_sitter_python.language())),
}


def sources_of(root):
    """The sources below `root` that are changed, sorted."""
    root = Path(root)
    found = {path.relative_to(root).as_posix() for name in SOURCES for path in root.glob(name)}
    return [Source.read(root, path) for path in sorted(found) if not path.startswith(TESTS)]


def all_mutants(root):
    """The mutants of all sources below `root`, in an order that is the same each time."""
    return [mutant for source in sources_of(root) for mutant in mutants_of(source)]


def mutants_of(source):
    """The mutants of one source, from its beginning to its end."""
    rules = _RULES[source.language]
    tree = _PARSERS[source.language].parse(rules.prepared(source.text))
    found = {}
    for node, ranges in nodes(tree.root_node, rules):
        rule = getattr(rules, node.type, None) if node.is_named else None
        for start, end, after, operator in rule(node) if rule else ():
            after = after.encode()
            if source.text[start:end] != after:
                mutant = Mutant(source, start, end, after, operator, ranges)
                found.setdefault((start, end, after), mutant)
    return [found[place] for place in sorted(found)]


def nodes(root, rules):
    """The nodes in which changes may be made, each with the lines of what holds it."""
    waiting = [(root, ())]
    while waiting:
        node, around = waiting.pop()
        if node.type == "ERROR" or rules.skips(node):
            continue
        lines = node.start_point[0] + 1, node.end_point[0] + 1
        ranges = around if lines in around[:1] else (lines, *around)
        yield node, ranges
        # What is outside the innermost function says nothing of whether a place in it runs.
        inside = ranges[:1] if node.type in rules.FUNCTIONS else ranges
        waiting.extend((child, inside if node.parent else ()) for child in node.children)
