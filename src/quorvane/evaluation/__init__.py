"""What a signal is worth: how it goes with the returns that follow it."""

from quorvane.evaluation.evaluation import Evaluation, evaluate

__all__ = ["Evaluation", "evaluate"]
