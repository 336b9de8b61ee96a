"""What a run found, for people: Markdown."""

import itertools
from collections import Counter

from mutants.judging import CAUGHT, COUNTED, SAME_CODE, SURVIVED, UNREACHED, UNVIABLE
from mutants.mutant import language_of

LANGUAGES = {"cpp": "C++", "python": "Python"}


def markdown(results, listed, seed, left_out):
    """The whole report of a run in which the tests `left_out` had no say, each for its reason."""
    parts = figures(results, listed, seed), kinds(results), trusted(left_out)
    return "\n".join([*itertools.chain(*parts), *survivors(results, listed)])


def figures(results, listed, seed):
    yield f"# Mutants drawn with the seed {seed}\n"
    yield f"{len(results)} drawn in {results.seconds / 60:.0f} minutes.\n"
    yield "| | tried | caught | survived | not reached | caught | but for those that do the same |"
    yield "|---|---|---|---|---|---|---|"
    for language, name in [*LANGUAGES.items(), (None, "all")]:
        entries = [
            entry
            for entry in results.entries(*COUNTED)
            if language in (None, language_of(entry["key"][0]))
        ]
        ended = Counter(entry["status"] for entry in entries)
        differing = that_differ(entries, listed)
        yield (
            f"| {name} | {len(entries)} | {ended[CAUGHT]} | {ended[SURVIVED]} | {ended[UNREACHED]} "
            f"| {results.share_caught(entries):.1f} % | {results.share_caught(differing):.1f} % |"
        )
    yield (
        f"\nDrawn in vain: {results.count(UNVIABLE)} that cannot be compiled, "
        f"{results.count(SAME_CODE)} of which the compiler makes the same code.\n"
    )


def kinds(results):
    yield "| kind of change | tried | caught |"
    yield "|---|---|---|"
    tried = Counter(entry["operator"] for entry in results.entries(*COUNTED))
    caught = Counter(entry["operator"] for entry in results.entries(CAUGHT))
    for kind, count in tried.most_common():
        yield f"| {kind} | {count} | {caught[kind]} |"
    how = Counter(entry["how"] for entry in results.entries(CAUGHT))
    yield (
        "\nCaught by a test that "
        + ", ".join(f"{way}: {n}" for way, n in how.most_common())
        + ".\n"
    )


def trusted(left_out):
    if left_out:
        yield "Left out, because without a mutant\n"
        yield from (f"* {why}" for why in left_out.values())
        yield ""


def survivors(results, listed):
    entries = results.entries(SURVIVED, UNREACHED)
    yield "## Survivors\n"
    for reason, count in listed.by_reason(entry["key"] for entry in entries).most_common():
        yield f"* {count}: {listed.reasons.get(reason, 'no reason is listed')}"
    for entry in sorted(entries, key=lambda entry: (entry["key"][0], entry["line"])):
        file, was, now = entry["key"]
        reason = listed.reason_of.get((file, was, now), "no reason is listed")
        yield (
            f"\n{file}:{entry['line']}: {entry['operator']}, {entry['status']} "
            f"({entry['tests']} files of tests, {entry['seconds']:.0f} s), {reason}\n"
        )
        yield f"    - {was}\n    + {now}"


def that_differ(entries, listed):
    """The results that count, without those survivors that are listed as doing the same."""
    return [
        entry
        for entry in entries
        if entry["status"] in COUNTED
        and (entry["status"] == CAUGHT or not listed.is_same(entry["key"]))
    ]
