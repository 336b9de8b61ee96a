"""A whole history as people write it by hand: vectorised over all days, no bookkeeping.

Each gives the output of every day over the instruments, a float64 matrix.
"""

import numpy as np

from daybench.ewma_by_hand import EwmaByHand
from daybench.ours import WINDOW
from daybench.peers import load


class Products:
    """The way to the structures and back, over sparse matrices."""

    def __init__(self, all_legs, instruments):
        sparse = load("scipy.sparse")
        columns = [column for legs in all_legs for column, _ in legs]
        weights = [weight for legs in all_legs for _, weight in legs]
        starts = np.cumsum([0, *map(len, all_legs)])
        legs = sparse.csr_matrix((weights, columns, starts), shape=(len(all_legs), instruments))
        self._legs = legs
        self._back = legs.T.tocsr()
        self._touches = abs(self._back).sign()
        self._untouched = self._back.getnnz(axis=1) == 0

    def there(self, inputs):
        """The structures' values, a row for each day."""
        return (self._legs @ inputs.T).T

    def back(self, ranks):
        """Where no structure contributes it is NaN."""
        missing = np.isnan(ranks)
        if not missing.any():
            output = (self._back @ ranks.T).T
            output[:, self._untouched] = np.nan
            return output
        output = (self._back @ np.where(missing, 0.0, ranks).T).T
        output[(self._touches @ (~missing).T.astype(np.float64)).T == 0.0] = np.nan
        return output


def bottleneck_ranks():
    """What gives each average's rank of its day, as a fraction of those that are there."""
    nanrankdata = load("bottleneck").nanrankdata

    def fractional_ranks(averages):
        present = np.count_nonzero(~np.isnan(averages), axis=1)
        return nanrankdata(averages, axis=1) / present[:, np.newaxis]

    return fractional_ranks


def by_numpy(all_legs, inputs):
    """A loop over the days for the average, bottleneck's ranks of all days at once."""
    fractional_ranks = bottleneck_ranks()
    products = Products(all_legs, inputs.shape[1])

    def history():
        ewma = EwmaByHand(WINDOW, len(all_legs))
        averages = np.array([ewma(row) for row in products.there(inputs)])
        return products.back(fractional_ranks(averages))

    return history


def by_pandas(all_legs, inputs):
    """Three lines between the products."""
    pandas = load("pandas")
    products = Products(all_legs, inputs.shape[1])

    def history():
        values = pandas.DataFrame(products.there(inputs))
        ranks = values.ewm(span=WINDOW).mean().rank(axis=1, pct=True)
        return products.back(ranks.to_numpy())

    return history


def by_numbagg(all_legs, inputs):
    """numbagg's average of all days at once, bottleneck's ranks."""
    move_exp_nanmean = load("numbagg", "move_exp_nanmean")
    fractional_ranks = bottleneck_ranks()
    products = Products(all_legs, inputs.shape[1])
    alpha = 2.0 / (WINDOW + 1.0)

    def history():
        values = np.ascontiguousarray(products.there(inputs).T)
        averages = move_exp_nanmean(values, alpha=alpha, min_weight=0.0).T
        return products.back(fractional_ranks(averages))

    return history


def by_polars(all_legs, inputs):
    """A column for each structure; ranks by day over the frame turned on its side."""
    polars = load("polars")
    products = Products(all_legs, inputs.shape[1])
    mean = polars.all().ewm_mean(span=WINDOW, adjust=True, ignore_nulls=False).forward_fill()

    def history():
        values = polars.DataFrame(np.ascontiguousarray(products.there(inputs)))
        averages = values.fill_nan(None).select(mean).to_numpy()
        days = polars.DataFrame(np.ascontiguousarray(averages.T)).fill_nan(None)
        ranks = days.select(polars.all().rank("average") / polars.all().count()).to_numpy()
        return products.back(np.ascontiguousarray(ranks.T))

    return history


# The name of the comparison, its key among a shape's goals, and the peer.
HISTORY_PEERS = [
    ("NumPy", "numpy", by_numpy),
    ("pandas", "pandas", by_pandas),
    ("numbagg", None, by_numbagg),
    ("polars", None, by_polars),
]
