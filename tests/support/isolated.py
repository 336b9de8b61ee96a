"""Running a script on one of the modules in an interpreter of its own, for what may crash."""

import os
import subprocess
import sys
import textwrap
from pathlib import Path

from support.siblings import base_location

_TESTS = str(Path(__file__).parents[1])


def run_isolated(kind, script, *, allocator="debug", timeout=60):
    """Run the script and return what it printed; AssertionError when the interpreter failed.

    The script finds `kind`, `np`, `Siblings`, `load_base`, `plain_rotation_base` and the fakes of
    tests/support, and loads the module of the kind itself. The allocator "debug" overwrites freed
    memory, "default" soon gives it away again: a use of it shows with one or with the other. Under
    the address sanitizer, which does both and finds pointers in its own blocks only, it is malloc.
    """
    if "libasan" in os.environ.get("LD_PRELOAD", ""):
        allocator = "malloc"
    setup = f"""
        import sys
        sys.path[:0] = {[_TESTS]!r}
        import gc
        import numpy as np
        from support import siblings
        from support.fakes import *
        from support.siblings import *
        siblings.base_location = lambda kind: {str(base_location(kind))!r}
        kind = {kind!r}
        gc.freeze()  # so that the collections of the script look at its own objects
    """
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", _dedented(setup) + _dedented(script)],
        env={**os.environ, "PYTHONMALLOC": allocator},
        capture_output=True,
        text=True,
        timeout=timeout,
        check=False,
    )
    assert done.returncode == 0, f"{kind} ended with {done.returncode}: {done.stderr[-3000:]}"
    return done.stdout


def _dedented(text):
    return textwrap.dedent(text).strip() + "\n"
