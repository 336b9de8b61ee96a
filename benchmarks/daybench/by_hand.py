"""What a good engineer writes by hand: vectorised NumPy, SciPy and bottleneck, no bookkeeping."""

import bottleneck
import numpy as np
from scipy import sparse

from daybench.ewma_by_hand import EwmaByHand


def rank_by_hand(values):
    """Average rank over the number of values."""
    return bottleneck.nanrankdata(values) / np.count_nonzero(~np.isnan(values))


class DayByHand:
    """Static baskets, ewma and rank, and back by weight, over sparse matrices."""

    def __init__(self, all_legs, instruments, window):
        columns = [column for legs in all_legs for column, _ in legs]
        weights = [weight for legs in all_legs for _, weight in legs]
        starts = np.cumsum([0, *map(len, all_legs)])
        self._legs = sparse.csr_matrix(
            (weights, columns, starts), shape=(len(all_legs), instruments)
        )
        self._back = self._legs.T.tocsr()
        self._touches = abs(self._back).sign()
        self._untouched = self._back.getnnz(axis=1) == 0
        self._ewma = EwmaByHand(window, len(all_legs))

    def __call__(self, inputs):
        """One day's output over the instruments, a new array."""
        ranks = rank_by_hand(self._ewma(self._legs @ inputs))
        missing = np.isnan(ranks)
        if not missing.any():
            output = self._back @ ranks
            output[self._untouched] = np.nan
            return output
        output = self._back @ np.where(missing, 0.0, ranks)
        output[self._touches @ (~missing).astype(np.float64) == 0.0] = np.nan
        return output
