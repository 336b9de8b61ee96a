"""
How smooth should it be?
========================

A longer average trades less and knows less: what is left after costs, by the window of ``ewma``.
"""

import matplotlib.pyplot as plt
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

COST = 0.0005
found = {}
for window in (1, 2, 3, 5, 10, 20, 40, 80):
    signal = -qv.Baskets(pair_weights(), f"ewma({window});centered_rank").run(returns)
    found[window] = qv.evaluate(signal, returns, horizons=[1], cost=COST).summary.loc[1]
table = pd.DataFrame(found).T.rename_axis("window")
table[["ic_mean", "profit_mean", "net_mean", "turnover"]].round(5)

# %%
# Turnover is what is traded each day of a portfolio whose weights add up to 1, in absolute terms.
# Here most is earned before costs with a window of about ten days, and after costs with one of
# about twenty: the longer one gives up less than its trades save.

places = range(len(table))
fig, (left, right) = plt.subplots(1, 2, figsize=(9, 4))
left.plot(places, table["turnover"], marker="o")
left.set_ylim(bottom=0)
left.set_title("Turnover a day")
right.plot(places, 1e4 * table["profit_mean"], marker="o", label="before costs")
right.plot(places, 1e4 * table["net_mean"], marker="o", label="after costs")
right.axhline(0, color="0.5", linewidth=0.8)
right.set_title("Profit a day in hundredths of a percent")
right.legend()
for axes in (left, right):
    axes.set_xticks(places, table.index)
    axes.set_xlabel("Window in days")
plt.show()
