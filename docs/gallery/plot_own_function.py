"""
A function of one's own
=======================

A few lines of Python become a word of every expression, with a memory that is saved and loaded.

Here is one that says how far a basket is below its own highest level so far. It gets the day's
values and its state, a number for each basket, and gives both back.
"""

import matplotlib.pyplot as plt
import numpy as np
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)


@qv.register("drawdown")
def drawdown(values, state, floor=-1.0):
    """The distance of the sum of all values from its highest so far; at least ``floor``."""
    nothing = np.full(len(values), np.nan)
    before = {"level": nothing, "highest": nothing} if state is None else state
    level = np.where(np.isnan(values), before["level"], np.nan_to_num(before["level"]) + values)
    highest = np.fmax(before["highest"], level)
    return np.maximum(level - highest, floor), {"level": level, "highest": highest}


pairs = qv.Baskets(pair_weights(), "drawdown(floor=-0.5)")
values = pairs.run(returns, level="basket")

# %%
# The same by hand, over the whole table at once:

differences = qv.Baskets(pair_weights(), "none").run(returns, level="basket")
level = differences.cumsum()
by_hand = (level - level.cummax()).clip(lower=-0.5)
there = values.notna() & by_hand.notna()
assert np.allclose(values[there], by_hand[there], equal_nan=True)

# %%
fig, axes = plt.subplots()
for pair in ("KO/PEP", "CVX/XOM", "BAC/JPM"):
    axes.plot(values[pair], label=pair)
axes.set_title("Below the highest so far, at most by a half")
axes.legend()
plt.show()

# %%
# It stands in a chain like any other, and the catalogue lists it last.

signal = qv.Baskets(pair_weights(), "drawdown;centered_rank").run(returns)
list(qv.catalogue())[-1]
