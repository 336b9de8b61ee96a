"""Baskets with the habits of scikit-learn's transformers."""

from __future__ import annotations

from collections.abc import Hashable, Iterable
from typing import Any

import numpy as np
from numpy.typing import NDArray
from sklearn.base import BaseEstimator, OneToOneFeatureMixin, TransformerMixin
from sklearn.utils.validation import check_array, check_is_fitted, validate_data

from quorvane.baskets import Baskets
from quorvane.baskets.course import Level
from quorvane.baskets.settings import Labels, Policy
from quorvane.sklearn.training import Training
from quorvane.sklearn.weights import make_baskets
from quorvane.tables import Table, read_table
from quorvane.tables.arrays import ArrayTable, as_array
from quorvane.tables.reading import frame_kind


class StructureTransformer(
    OneToOneFeatureMixin,  # type: ignore[misc]
    TransformerMixin,  # type: ignore[misc]
    BaseEstimator,  # type: ignore[misc]
):
    """Baskets of instruments through an expression, and back, over days that are samples.

    `fit` runs the training's days. `transform` gives for these what they gave, and for later days
    what comes from going on behind the last day of the training: to the bit what one
    `quorvane.Baskets.run` over all of them gives. It never changes the fitted state, so the same
    days give the same numbers however often they are asked for, and no number depends on a later
    day.

    Which days are which is told by the index of pandas (or by a column of dates): a day of the
    training gives what it gave, and is refused where it has other numbers now; others must come
    after the training. Without an index, or with one that is just 0, 1, 2, ..., rows that are equal
    to those of the training give what those gave, and others go on.

    Parameters
    ----------
    weights : mapping, frame or None
        As of `quorvane.Baskets`; with None each column is a basket of its own. A frame with the
        columns basket, instrument and weight is a long table, with a row for each leg; with a
        column date its baskets change on given dates, as `quorvane.Baskets.from_long` has them.
    expression : str
        The functions, one after the other, such as ``"ewma(20);zscore"``; ``"none"`` for none.
    level : {"instrument", "basket"}
        Whether the features are the columns as they came, or one for each basket.
    policy, hold, labels, capacity, reclaim, threads
        As of `quorvane.Baskets`.
    instruments : iterable of names, optional
        The columns of arrays, in order; by default as the weights first mention them.
    complete : bool
        Of weights that change by date: with False each basket keeps its legs until its own next
        date.
    date : name, optional
        The column of dates, where it cannot be told by its type. It is no feature.

    Attributes
    ----------
    baskets_ : quorvane.Baskets
        At the last day of the training; new ones each time, which go their own way.
    n_features_in_ : int
        Columns of the training, a column of dates included.
    feature_names_in_ : ndarray of str
        Their names, where all are text.

    Examples
    --------
    >>> import numpy as np
    >>> from quorvane.sklearn import StructureTransformer
    >>> days = np.array([[0.03, 0.01, 0.02], [0.01, 0.02, 0.03], [0.02, 0.03, 0.01]])
    >>> signal = StructureTransformer(expression="ewma(2);rank").fit(days[:2])
    >>> signal.transform(days[2:]).round(2)
    array([[0.67, 1.  , 0.33]])
    """

    def __init__(
        self,
        weights: Any = None,
        expression: str = "none",
        *,
        level: Level = "instrument",
        policy: Policy = "proportional",
        hold: int | None = 0,
        instruments: Iterable[Hashable] | None = None,
        labels: Labels | None = None,
        capacity: int | None = None,
        reclaim: bool = False,
        complete: bool = True,
        date: Hashable = None,
        threads: int | None = None,
    ) -> None:
        self.weights = weights
        self.expression = expression
        self.level = level
        self.policy = policy
        self.hold = hold
        self.instruments = instruments
        self.labels = labels
        self.capacity = capacity
        self.reclaim = reclaim
        self.complete = complete
        self.date = date
        self.threads = threads

    def fit(self, X: Any, y: Any = None) -> StructureTransformer:
        """Run the days of the training.

        Parameters
        ----------
        X : frame of pandas, polars or pyarrow, or array_like of days x instruments
            In the order of time; numbers may be missing.
        y : ignored

        Raises
        ------
        TypeError, ValueError
            As `quorvane.Baskets` and its `run`; and an index of dates or numbers does not ascend.
            What was fitted before is as it was.
        """
        baskets = make_baskets(
            self.weights,
            self.complete,
            {
                "expression": self.expression,
                "policy": self.policy,
                "hold": self.hold,
                "instruments": self.instruments,
                "labels": self.labels,
                "capacity": self.capacity,
                "reclaim": self.reclaim,
                "threads": self.threads,
            },
        )
        table = self._read(X, self.date)
        if table.kind == "array" and baskets._book is not None and baskets._book.is_dated:
            raise ValueError(
                "X: an array has no dates, and the baskets change by date: give a frame with an "
                "index or a column of dates"
            )
        training = Training.of(baskets, table, X, self.level)
        validate_data(self, X, reset=True, skip_check_array=True)
        self._training = training
        self._date_given = self.date
        return self

    def transform(self, X: Any) -> Any:
        """What the days give: those of the training what they gave, later ones by going on.

        Returns
        -------
        ndarray of days x features, or the frame that `set_output` asks for
            NaN where nothing speaks, and in a column that is no instrument.

        Raises
        ------
        TypeError, ValueError
            As `quorvane.Baskets.update`; the columns are others than those of the training; or a
            day is neither of the training nor after it, cannot be told, or has other numbers.
        """
        check_is_fitted(self)
        table = self._read(X, self._date_given)
        validate_data(self, X, reset=False, skip_check_array=True)
        return self._training.outputs_of(table, X)

    def fit_transform(self, X: Any, y: Any = None) -> Any:
        """`fit`, and what `transform` gives of the same days."""
        return self.fit(X, y)._training.given()

    def get_feature_names_out(self, input_features: Any = None) -> NDArray[np.object_]:
        """The names of the columns that `transform` gives.

        Parameters
        ----------
        input_features : array_like of str, optional
            The names of the training's columns, where they are not known.
        """
        check_is_fitted(self)
        names: NDArray[np.object_] = super().get_feature_names_out(input_features)
        training = self._training
        if training.date_at is not None:
            names = np.delete(names, training.date_at)
        own = training.names or (0,)
        if all(isinstance(name, str) for name in own):
            # Not every version of scikit-learn can read the names of every frame.
            names = np.array(own, dtype=object)
        if training.level == "instrument":
            return names
        if training.end.apart._is_open:
            # Each column is a basket of its own, by whatever name it has.
            return names[training.positions]
        return np.array([str(basket) for basket in self.baskets_.baskets], dtype=object)

    @property
    def baskets_(self) -> Baskets:
        """The baskets at the last day of the training; new ones each time."""
        check_is_fitted(self)
        return self._training.end.baskets()

    def _read(self, X: Any, date: Any) -> Table:
        """The table; of what is no frame scikit-learn says what is wrong."""
        if frame_kind(X, "X") is not None:
            return read_table(X, date=date, argument="X")
        if date is not None:
            raise ValueError(f"date={date!r} is the name of a column, and X has no names")
        if isinstance(X, np.ma.MaskedArray):
            X = as_array(X, "X")
        values = check_array(X, ensure_all_finite=False, ensure_min_samples=0, estimator=self)
        return ArrayTable(values, None, "X")

    def __sklearn_tags__(self) -> Any:
        tags = super().__sklearn_tags__()
        tags.input_tags.allow_nan = True
        return tags
