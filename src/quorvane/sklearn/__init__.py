"""Baskets as a transformer of scikit-learn: `StructureTransformer`.

scikit-learn comes with ``pip install 'quorvane[sklearn]'``; nothing else of the package imports it.
"""

try:
    from sklearn.utils.validation import validate_data as _validate_data  # since 1.6
except ImportError as error:
    raise ImportError(
        "quorvane.sklearn needs scikit-learn 1.6 or newer: pip install 'quorvane[sklearn]'"
    ) from error

from quorvane.sklearn.transformer import StructureTransformer

__all__ = ["StructureTransformer"]

del _validate_data
