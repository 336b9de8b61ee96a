"""What one run of tests reached, from what gcov and coverage.py have left in a folder."""

import json
import os
import subprocess
from pathlib import Path

from mutants.reach import bits

SETTINGS = """\
[run]
parallel = true
patch =
    subprocess
    _exit
sigterm = true
data_file = {folder}/python/data
include = {sources}/*
disable_warnings =
    couldnt-parse, dynamic-conflict, include-ignored, module-not-imported,
    module-not-measured, module-not-python, no-data-collected
"""


class Trace:
    """The lines that run while a command has this `environment` and the `tracer` in front."""

    def __init__(self, checkout, folder):
        """Have the traces of tests in the copy `checkout` put into `folder`."""
        self.checkout = Path(checkout)
        self.folder = Path(folder)
        (self.folder / "python").mkdir(parents=True)
        settings = self.folder / "settings"
        sources = self.checkout / "src" / "quorvane"
        settings.write_text(SETTINGS.format(folder=self.folder, sources=sources))
        self.environment = {"GCOV_PREFIX": str(self.folder / "cpp")}
        self.tracer = ("-m", "coverage", "run", f"--rcfile={settings}")

    def ran(self):
        """The lines that have run, by file, and those of C++ that can."""
        ran, known = self._cpp()
        return self._python() | ran, known

    def _python(self):
        from coverage import CoverageData

        ran = {}
        for path in (self.folder / "python").iterdir():
            data = CoverageData(str(path))
            data.read()
            for file in data.measured_files():
                name = Path(file).relative_to(self.checkout).as_posix()
                ran[name] = ran.get(name, 0) | bits(data.lines(file) or ())
        return ran

    def _cpp(self):
        ran, known = {}, {}
        for report in gcov_reports(self.folder / "cpp"):
            place = Path(report["current_working_directory"])
            for entry in report["files"]:
                path = Path(os.path.normpath(place / entry["file"]))
                if not path.is_relative_to(self.checkout / "cpp"):
                    continue
                name = path.relative_to(self.checkout).as_posix()
                counts = {line["line_number"]: line["count"] for line in entry["lines"]}
                known[name] = known.get(name, 0) | bits(counts)
                taken = bits(line for line, count in counts.items() if count)
                if taken:
                    ran[name] = ran.get(name, 0) | taken
        return ran, known


def gcov_reports(prefix):
    """What gcov says of the counters below `prefix`, each of them at its own path below it."""
    counters = sorted(prefix.rglob("*.gcda"))
    for data in counters:
        notes = Path("/") / data.relative_to(prefix).with_suffix(".gcno")
        data.with_suffix(".gcno").symlink_to(notes)
    if not counters:
        return
    command = ["gcov", "--json-format", "--stdout", *map(str, counters)]
    said = subprocess.run(command, capture_output=True, text=True, check=True, cwd=prefix)
    yield from map(json.loads, said.stdout.splitlines())


def lines_of_code(source):
    """The lines of a Python source in which something can run."""
    lines = set()
    waiting = [compile(source.text, source.path, "exec", dont_inherit=True)]
    while waiting:
        code = waiting.pop()
        lines.update(line for _, _, line in code.co_lines() if line)
        waiting.extend(constant for constant in code.co_consts if hasattr(constant, "co_lines"))
    return bits(lines)
