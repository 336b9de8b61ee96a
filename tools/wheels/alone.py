"""Import every compiled module of an installed wheel, and run baskets on nothing but NumPy."""

import importlib.util
import shutil
import sys
from pathlib import Path

import numpy as np

import quorvane as qv

package = Path(qv.__file__).parent
if not package.is_relative_to(sys.prefix):
    sys.exit(f"{package} is not of this environment")
for compiler in ("c++", "g++", "clang++", "cc"):
    if found := shutil.which(compiler):
        sys.exit(f"there is a compiler: {found}")

modules = sorted(package.rglob("*.so"))
for path in modules:
    name = ".".join(path.relative_to(package.parent).parent.parts)
    importlib.import_module(f"{name}.{path.name.partition('.')[0]}")

days = np.arange(30.0).reshape(10, 3) % 7
signal = qv.Baskets({"A/B": {0: 1, 1: -1}, "B/C": {1: 1, 2: -1}}, "ewma(3);zscore").run(days)
if signal.shape != days.shape or not np.isfinite(signal[-1]).all():
    sys.exit(f"the signal is {signal}")
print(f"{len(modules)} compiled modules, NumPy {np.__version__}, a signal of {signal.shape}")
