"""
Is the signal any good?
=======================

A signal beside the returns that follow it: correlations by horizon, and growth by quantile.

Stocks that fell behind their peers tend to come back for some days; so the signal here is turned
around: it is short what has done well.
"""

import matplotlib.pyplot as plt
import numpy as np
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

signal = -qv.Baskets(pair_weights(), "ewma(5);centered_rank").run(returns)
judged = qv.evaluate(signal, returns, horizons=[1, 2, 5, 10, 20, 60])
judged.summary[["ic_mean", "ic_t", "profit_mean", "profit_t"]].round(5)

# %%
# The information coefficient is the rank correlation of a day's signal with what follows it. The
# lines are two standard errors, corrected for returns that overlap.

summary = judged.summary
error = (summary["ic_mean"] / summary["ic_t"]).abs()
fig, axes = plt.subplots()
axes.bar(np.arange(len(summary)), summary["ic_mean"], yerr=2 * error, width=0.6, capsize=4)
axes.set_xticks(np.arange(len(summary)), [f"{days}" for days in summary.index])
axes.set_xlabel("Days that follow")
axes.set_title("Mean information coefficient")
axes.axhline(0, color="0.3", linewidth=0.8)
plt.show()

# %%
# Each day's stocks are divided into five parts by their signal. What 1 has become, held in each
# of them from day to day, before costs:

by_quantile = judged.quantile_returns[1]
growth = (1 + by_quantile.fillna(0)).cumprod()
fig, axes = plt.subplots()
colors = plt.colormaps["viridis"](np.linspace(0, 0.9, 5))
for color, (quantile, line) in zip(colors, growth.items(), strict=True):
    axes.plot(line, color=color, label=f"{quantile}")
axes.set_yscale("log")
axes.set_title("Growth of 1 by quantile of the signal, 1 the lowest")
axes.legend(title="Quantile")
plt.show()
