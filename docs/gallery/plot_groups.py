"""
Within groups
=============

``by=`` compares a basket with those of its own group: here the pairs of a sector with one
another.

Without it a day on which energy moves is a day on which the energy pairs take all the high and
low places. With it each sector has its own mean and its own deviation.
"""

import matplotlib.pyplot as plt
import numpy as np
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import SECTORS, find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

sector_of = {stock: sector for sector, stocks in SECTORS.items() for stock in stocks}
weights = {
    pair: legs
    for pair, legs in pair_weights().items()
    # A pair that is alone in its sector has nothing to be compared with.
    if len(SECTORS[sector_of[next(iter(legs))]]) > 2
}
sector = {pair: sector_of[next(iter(legs))] for pair, legs in weights.items()}

among_all = qv.Baskets(weights, "ewma(20);zscore").run(returns, level="basket")
grouped = qv.Baskets(weights, 'ewma(20);zscore(by="sector")', labels={"sector": sector})
within = grouped.run(returns, level="basket")

# %%
# The pairs of one day, by sector. On the left the sectors differ in how far they spread; on the
# right they do not.

day = "2020-04-20"
groups = sorted(set(sector.values()))
place = np.array([groups.index(sector[pair]) for pair in weights])
fig, axes = plt.subplots(1, 2, figsize=(9, 4), sharey=True)
for ax, table, title in zip(axes, (among_all, within), ("among all", "by sector"), strict=True):
    ax.scatter(table.loc[day], place, c=place, cmap="Dark2", s=40)
    ax.axvline(0, color="0.5", linewidth=0.8)
    ax.set_title(f"zscore {title}, {day}")
axes[0].set_yticks(range(len(groups)), groups)
plt.show()

# %%
# Over the years: how far the pairs of each sector spread, among all and by sector.

label = pd.Series(sector)
spread = pd.DataFrame(
    {
        "among all": among_all.T.groupby(label).std(ddof=0).T.mean(),
        "by sector": within.T.groupby(label).std(ddof=0).T.mean(),
    }
)
spread.round(2)
