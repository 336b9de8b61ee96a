"""Memory stays the same however many days a rotation has seen."""

import os
import subprocess
import sys

import pytest

from safety.soak import STATM
from support.server_process import environment

DAYS = 1_000_000 if os.environ.get("QUORVANE_LONG") else 100_000
ALLOWED_BYTES = 2**20


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="it keeps freed memory")
@pytest.mark.skipif(not os.path.exists(STATM), reason="resident memory is read from Linux's /proc")
def test_resident_memory_is_flat():
    # By itself: what other tests have left in a process moves its memory by as much.
    program = [sys.executable, "-m", "safety.soak", str(DAYS)]
    done = subprocess.run(program, env=environment(), capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
    assert int(done.stdout) <= ALLOWED_BYTES
