"""The command that holds a measurement to the list: see `python -m tests.branches --help`."""

import argparse
import sys
from pathlib import Path

from branches import measured, open_list

ROOT = Path(__file__).parents[2]


def main():
    parser = argparse.ArgumentParser(
        prog="python -m tests.branches",
        description="Compare the branches that no test took with the list of those that none can.",
    )
    parser.add_argument("build", help="where the instrumented build is, after the tests have run")
    parser.add_argument("--least", type=float, default=95.0, help="per cent (%(default)s)")
    options = parser.parse_args()
    branches = measured.read(measured.reports(options.build), ROOT)
    listed = open_list.read()
    for file in branches.files():
        print(f"{branches.share_taken(file):6.1f} %  {file}")
    total, untaken = branches.total.total(), branches.untaken.total()
    print(f"{branches.share_taken():6.1f} %  {total - untaken} of {total} branches of decisions")
    within_reach = total - listed.out_of_reach()
    share = 100 * (total - untaken) / within_reach
    print(f"{share:6.1f} %  of the {within_reach} that this processor can take")
    for reason, count in listed.by_reason().most_common():
        print(f"{count:6} open: {listed.reasons[reason]}")
    wrong = list(open_list.complaints(branches, listed))
    if share < options.least:
        wrong.append(f"less than {options.least} % of what this processor can take was taken")
    print(*wrong, sep="\n", file=sys.stderr)
    return int(bool(wrong))
