"""
Slots for years
===============

New baskets every month for decades in a room of fixed size: ended ones give their places to new
ones.

Each basket has a slot, where the functions keep their memory of it. With ``reclaim=True`` a new
basket that finds no free slot gets that of an ended one, and begins there as if nobody had been
there before.
"""

import matplotlib.pyplot as plt
import numpy as np
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"])
returns = prices.pct_change(fill_method=None)

# Ten pairs a month, drawn by lot: what matters here is that they come and go.
rng = np.random.default_rng(4)
rows = []
for month in pd.date_range(returns.index[0], returns.index[-1], freq="MS"):
    for a, b in rng.permutation(list(returns)).reshape(10, 2):
        rows += [(month, f"{a}/{b}", a, 1.0), (month, f"{a}/{b}", b, -1.0)]
legs = pd.DataFrame(rows, columns=["date", "basket", "instrument", "weight"])

room = qv.Baskets.from_long(legs, "ewma(20);zscore", capacity=40, reclaim=True)
every = qv.Baskets.from_long(legs, "ewma(20);zscore")

# %%
# The same days in a room for forty, and in one that has a place for every pair there ever was.

usage = []
for _, days in returns.groupby(pd.Grouper(freq="YE")):
    for name, baskets in (("room for 40", room), ("a place for each", every)):
        baskets.update(days)
        usage.append((days.index[-1], name, baskets.slots.known, baskets.slots.speaking))
table = pd.DataFrame(usage, columns=["day", "room", "known", "speaking"])
table.tail(2)

# %%
fig, axes = plt.subplots()
for name, part in table.groupby("room"):
    axes.plot(part["day"], part["known"], marker=".", label=f"{name}: have a slot")
axes.plot(part["day"], part["speaking"], color="0.4", linestyle=":", label="speak")
axes.set_yscale("log")
axes.set_title("Slots at the end of each year")
axes.legend()
plt.show()

# %%
# A pair that comes back after its slot was given away begins afresh; in the larger room it goes
# on with what it remembered. So the numbers may differ, and mostly do so for a while after a
# return.

ours, theirs = (each.run(returns, level="basket") for each in (room, every))
both = ours.notna() & theirs.notna()
same = ((ours - theirs).abs() < 1e-9)[both].sum().sum() / both.sum().sum()
print(f"{same:.0%} of the numbers are the same")
