"""
A sweep as a heat map
=====================

Every combination of a window and of what stands behind it, judged on the same days, side by side.

``qv.sweep`` runs the combinations on all cores and gives a row for each. The grid is of texts, so
that a name that is misspelt is that row's error, and the others go on.
"""

import matplotlib.pyplot as plt
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"]).loc["2005":"2016"]
returns = prices.pct_change(fill_method=None)

windows = (2, 5, 10, 20, 40)
endings = ("centered_rank", "zscore", "winsorize(0.1)", "sign")
grid = {
    "weights": {"pairs": pair_weights()},
    "expression": [f"ewma({window});{ending}" for ending in endings for window in windows],
}
found = qv.sweep(returns, grid, score={"horizons": [5]})
assert not found["error"].any()
found[["expression", "ic_mean_5", "ic_t_5", "turnover"]].head(3).round(4)

# %%
# Neighbours on a map should look alike. A single cell that stands out is chance more often than
# not: of twenty that know nothing, the best has a t-statistic of about 2.

parts = found["expression"].str.extract(r"ewma\((?P<window>\d+)\);(?P<ending>.*)")
table = parts.assign(t=found["ic_t_5"]).pivot(index="ending", columns="window", values="t")
table = table.loc[list(endings), [str(window) for window in windows]]

fig, axes = plt.subplots(figsize=(7, 3.5))
image = axes.imshow(table, cmap="RdBu", vmin=-6, vmax=6, aspect="auto")
axes.set_xticks(range(len(windows)), table.columns)
axes.set_yticks(range(len(endings)), table.index)
axes.set_xlabel("Window of ewma")
axes.grid(visible=False)
for row, ending in enumerate(table.index):
    for column, window in enumerate(table.columns):
        t = table.loc[ending, window]
        axes.text(
            column, row, f"{t:.1f}", ha="center", va="center", color="k" if abs(t) < 4 else "w"
        )
fig.colorbar(image, label="t-statistic of the correlation over five days")
axes.set_title("2005 to 2016")
plt.show()

# %%
# All of them are below zero: what did better than its peers falls back over the next five days,
# so that one would hold the opposite. Whatever is chosen on these days is to be looked at once
# more on days that the sweep has not seen.
