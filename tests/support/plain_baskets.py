"""Baskets day by day in plain Python, written from what they promise and from nothing else."""

import math
from collections import defaultdict

NAN = math.nan


class PlainBaskets:
    """``listing_of(day)`` gives {basket: {instrument: weight}}, a day is {instrument: number}."""

    def __init__(self, listing_of, expression, *, hold=0, policy="proportional", capacity=None):
        self.listing_of = listing_of
        self.functions = [make_function(text) for text in expression.split(";") if text != "none"]
        self.hold = 1e9 if hold is None else hold
        self.policy = policy
        self.capacity = math.inf if capacity is None else capacity
        self.slot_of = {}
        self.silent_days = {}
        self.legs_of = {}
        self.day = 0
        self.by_basket = {}

    def step(self, numbers):
        """The signal of the next day, for each instrument that gets one."""
        listing = self.listing_of(self.day)
        self.day += 1
        values = {basket: value_of(legs, numbers) for basket, legs in listing.items()}
        self._find_slots(listing, values)
        for basket in self.slot_of:
            value = values.get(basket, NAN)
            present = not math.isnan(value)
            self.silent_days[basket] = 0 if present else self.silent_days[basket] + 1
            if basket in listing:
                self.legs_of[basket] = listing[basket]
        speaking = [b for b in self.slot_of if self.silent_days[b] <= self.hold]
        row = {basket: values.get(basket, NAN) for basket in self.slot_of}
        for function in self.functions:
            found = function(row)
            row = {basket: found[basket] if basket in speaking else NAN for basket in row}
        self.by_basket = {basket: row[basket] for basket in speaking}
        return self._signal()

    def _signal(self):
        parts = defaultdict(list)
        for basket, value in self.by_basket.items():
            if math.isnan(value):
                continue
            legs = self.legs_of[basket]
            for instrument, weight in legs.items():
                share = math.copysign(1 / len(legs), weight)
                parts[instrument].append(
                    value * (weight if self.policy == "proportional" else share)
                )
        return {instrument: math.fsum(each) for instrument, each in parts.items()}

    def _find_slots(self, listing, values):
        new = [basket for basket in listing if basket not in self.slot_of]
        ended = self._silent(without=listing)
        if len(new) > self._free() + len(ended):
            # Not all that are listed have room: only those that have something to say.
            new = [basket for basket in new if not math.isnan(values[basket])]
            loud = [basket for basket in listing if not math.isnan(values[basket])]
            ended += [b for b in self._silent(without=loud) if b not in ended]
        for basket in new:
            if self._free():
                slot = len(self.slot_of)
            elif ended:
                old = ended.pop(0)
                slot = self.slot_of.pop(old)
                del self.silent_days[old]
                for function in self.functions:
                    function.forget(old)
            else:
                raise OverflowError(basket)
            self.slot_of[basket] = slot
            self.silent_days[basket] = math.inf

    def _free(self):
        return self.capacity - len(self.slot_of)

    def _silent(self, without):
        """Who could not speak today even so, the longest silent first."""
        found = [
            b for b in self.slot_of if b not in without and self.silent_days[b] + 1 > self.hold
        ]
        return sorted(found, key=lambda b: (-self.silent_days[b], self.slot_of[b]))


def value_of(legs, numbers):
    """The weighted sum, missing where a leg is."""
    return sum(weight * numbers[instrument] for instrument, weight in legs.items())


def make_function(text):
    """The function of an expression's text."""
    name, _, argument = text.rstrip(")").partition("(")
    return Average(int(argument)) if name == "ewma" else CrossSection(name)


class Average:
    """Exponentially weighted; older weights go on aging while values are missing."""

    def __init__(self, span):
        self.keep = 1 - 2 / (span + 1)
        self.sums = {}

    def __call__(self, row):
        return {basket: self._next(basket, value) for basket, value in row.items()}

    def forget(self, basket):
        self.sums.pop(basket, None)

    def _next(self, basket, value):
        if basket not in self.sums and math.isnan(value):
            return NAN
        total, weights = self.sums.get(basket, (0.0, 0.0))
        total, weights = total * self.keep, weights * self.keep
        if not math.isnan(value):
            total, weights = total + value, weights + 1.0
        self.sums[basket] = total, weights
        return total / weights


class CrossSection:
    """What looks at one day alone."""

    def __init__(self, name):
        self.of_all = {"rank": ranks, "zscore": scores, "sigmoid": sigmoids}[name]

    def __call__(self, row):
        known = {basket: value for basket, value in row.items() if not math.isnan(value)}
        return {**dict.fromkeys(row, NAN), **self.of_all(known)}

    def forget(self, basket):
        """Nothing is kept."""


def ranks(row):
    values = list(row.values())
    return {
        b: (sum(v < x for v in values) + (values.count(x) + 1) / 2) / len(values)
        for b, x in row.items()
    }


def scores(row):
    if len(row) < 2:
        return {}
    mean = math.fsum(row.values()) / len(row)
    deviation = math.sqrt(math.fsum((x - mean) ** 2 for x in row.values()) / len(row))
    if deviation <= abs(mean) * 2.0**-52:
        return {}
    return {basket: (x - mean) / deviation for basket, x in row.items()}


def sigmoids(row):
    return {basket: 1 / (1 + math.exp(-x)) for basket, x in row.items()}
