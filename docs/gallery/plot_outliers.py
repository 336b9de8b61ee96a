"""
Outliers
========

Three ways to keep a single wild number from deciding a day: clip it, winsorize it, or measure it
by its own past.

``clip`` has fixed bounds, ``winsorize`` takes the day's own quantiles for them, and
``rolling_zscore`` divides each basket's number by how far it usually goes.
"""

import matplotlib.pyplot as plt
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

expressions = {
    "as they are": "none",
    "clip(-0.05, 0.05)": "clip(-0.05, 0.05)",
    "winsorize(0.1)": "winsorize(0.1)",
    "rolling_zscore(60)": "rolling_zscore(60)",
}
# Without weights each column is a basket of its own.
found = {name: qv.Baskets(None, text).run(returns) for name, text in expressions.items()}

# %%
# The returns of all stocks in the spring of 2020. RRC rose by more than a fifth on some days;
# what it says of the others' places depends on which way is taken.

spring = slice("2020-02-15", "2020-05-15")
fig, axes = plt.subplots(2, 2, figsize=(9, 6), sharex=True)
for ax, (name, table) in zip(axes.flat, found.items(), strict=True):
    ax.plot(table.loc[spring].drop(columns="RRC"), color="0.75", linewidth=0.8)
    ax.plot(table.loc[spring, "RRC"], color="C3", label="RRC")
    ax.set_title(name)
    ax.tick_params(axis="x", rotation=30)
axes[0, 0].legend()
plt.show()

# %%
# How much of the day's sum of squares the largest number of the day has, on average:

share = {
    name: (table.pow(2).max(axis=1) / table.pow(2).sum(axis=1)).mean()
    for name, table in found.items()
}
pd.Series(share, name="share of the largest").round(3).to_frame()
