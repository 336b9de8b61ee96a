"""All operations that fail, by name: (the expected error, how the operation is set up)."""

from safety.subjects import (  # noqa: F401 # each puts down its own
    failing_arguments,
    failing_batches,
    failing_columns,
    failing_days,
    failing_states,
)
from safety.subjects.failing import FAILURES

__all__ = ["FAILURES"]
