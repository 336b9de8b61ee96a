"""Entry point of `python -m tests.branches`, run in the checkout's root."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parents[1]))

from branches.command import main

sys.exit(main())
