"""The tests of some files, as a mutant meets them: `python tests/mutants/judge.py FILE...`.

A test that takes too long ends the process, and a file says which test is running, in case it takes
the process with it. Random inputs are the same each time, and are not made smaller when one fails:
that it fails is all there is to know.
"""

import faulthandler
import os
import sys

import pytest

# The environment's: seconds that a test may take, and the file for its name.
LIMIT, RUNNING = "QUORVANE_MUTANTS_LIMIT", "QUORVANE_MUTANTS_RUNNING"


class Watch:
    """Tells which test runs, and ends what does not end."""

    def __init__(self, limit, running):
        self.limit = limit
        self.running = os.open(running, os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC)

    def pytest_configure(self):
        same_inputs_each_time()

    @pytest.hookimpl(hookwrapper=True)
    def pytest_runtest_protocol(self, item):
        os.ftruncate(self.running, 0)
        os.pwrite(self.running, item.nodeid.encode(), 0)
        # A thread of C's that asks for no lock: it works whatever the test holds.
        faulthandler.dump_traceback_later(self.limit, exit=True)
        yield
        faulthandler.cancel_dump_traceback_later()

    def pytest_sessionfinish(self):
        os.ftruncate(self.running, 0)


def same_inputs_each_time():
    """Have hypothesis say the same things to every mutant."""
    try:
        from hypothesis import HealthCheck, Phase, settings
    except ImportError:
        return
    settings.register_profile(
        "mutants",
        phases=[Phase.explicit, Phase.generate],
        database=None,
        derandomize=True,
        deadline=None,
        suppress_health_check=[HealthCheck.too_slow],
    )
    settings.load_profile("mutants")


def main():
    # As for `python -m pytest`: what lies beside this file is nothing to import.
    sys.path[0] = os.getcwd()
    watch = Watch(float(os.environ.pop(LIMIT)), os.environ.pop(RUNNING))
    return pytest.main(["-q", "--no-header", "-p", "no:cacheprovider", *sys.argv[1:]], [watch])


if __name__ == "__main__":
    sys.exit(main())
