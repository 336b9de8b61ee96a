"""Entry point of `python -m tests.mutants`, run in the checkout's root."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parents[1]))

from mutants.command import main

sys.exit(main())
