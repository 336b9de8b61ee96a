"""
Baskets that change by date
===========================

Each January the pairs are chosen anew, by how they went together in the year before.

A long table says which baskets there are, with a row for each leg. Each of its dates is the
complete list from then on, so that a pair that is not listed any more ends, and one that is
listed again goes on with what it remembers.
"""

from itertools import combinations

import matplotlib.pyplot as plt
import pandas as pd

import quorvane as qv
from quorvane.cli.demo import find_prices

prices = pd.read_csv(find_prices(), index_col="Date", parse_dates=["Date"]).loc["2009":]
returns = prices.pct_change(fill_method=None)

rows = []
for year in range(2010, 2023):
    # Nothing of the year itself is known when its pairs are chosen.
    correlation = returns.loc[str(year - 1)].corr()
    by_closeness = sorted(combinations(returns, 2), key=lambda pair: -correlation.loc[pair])
    for a, b in by_closeness[:8]:
        rows += [(f"{year}-01-01", f"{a}/{b}", a, 1.0), (f"{year}-01-01", f"{a}/{b}", b, -1.0)]
legs = pd.DataFrame(rows, columns=["date", "basket", "instrument", "weight"])
legs.tail(4)

# %%
pairs = qv.Baskets.from_long(legs, "ewma(60);centered_rank")
values = pairs.run(returns, level="basket")
pairs.slots

# %%
# When each pair speaks. BAC/JPM and CVX/XOM are there in every year, others for a year or two.

speaks = values.notna().resample("YE").mean().T
speaks = speaks.loc[speaks.gt(0.5).sum(axis=1).sort_values().index]
fig, axes = plt.subplots(figsize=(8, 6))
for place, (_, years) in enumerate(speaks.iterrows()):
    begins = [day.year for day, share in years.items() if share > 0.5]
    axes.barh([place] * len(begins), 1, left=begins, height=0.7, color="C0")
axes.set_yticks(range(len(speaks)), speaks.index, fontsize=8)
axes.grid(visible=False, axis="y")
axes.set_title("Years in which a pair is listed")
plt.show()

# %%
# One pair through time: where it is not listed it is missing, and counts in nobody's rank.

pair = speaks.index[len(speaks) // 2]
fig, axes = plt.subplots()
axes.plot(values[pair])
axes.set_title(f"{pair} among the pairs of its day")
plt.show()
