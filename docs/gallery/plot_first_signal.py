"""
A first signal
==============

Pairs of stocks of one sector, smoothed and ranked against each other, come back onto the stocks.

A pair's value is the difference of two returns. ``ewma(20)`` averages it over some twenty days,
and ``centered_rank`` gives each pair its place among the day's pairs, from -1 to 1.
"""

import matplotlib.pyplot as plt
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices, pair_weights

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

pairs = qv.Baskets(pair_weights(), "ewma(20);centered_rank")
signal = pairs.run(returns)
signal[["AAPL", "KO", "PEP", "XOM"]].tail(3).round(2)

# %%
# The signal is a table of the same days and stocks. It is above zero where a stock has done
# better than its peers of late: here are two that are paired with each other, in the last year.

year = slice("2022", "2022")
fig, (above, below) = plt.subplots(2, sharex=True, figsize=(8, 5))
for stock in ("KO", "PEP"):
    above.plot(prices.loc[year, stock] / prices.loc[year, stock].iloc[0], label=stock)
    below.plot(signal.loc[year, stock], label=stock)
above.set_title("Price, from 1 on")
above.legend()
below.set_title("Signal")
below.axhline(0, color="0.5", linewidth=0.8)
plt.show()

# %%
# Where a number comes from is one call. The contributions add up to it.

explained = pairs.explain("KO")
assert abs(explained["contribution"].sum() - signal["KO"].iloc[-1]) < 1e-12
explained.round(4)
