"""Where and on what the figures were made: without it they mean little."""

import importlib.metadata
import os
import platform
import subprocess
from pathlib import Path

import quorvane

_LIBRARIES = ["numpy", "scipy", "bottleneck", "numbagg", "polars", "screamer", "matplotlib"]


def describe():
    """Return a flat dict of texts and numbers."""
    return {
        "processor": _processor(),
        "processors": os.cpu_count(),
        "load at start": [round(load, 1) for load in os.getloadavg()],
        "system": platform.platform(),
        "python": platform.python_version(),
        **{name: _version(name) for name in _LIBRARIES},
        "quorvane": quorvane.__version__,
        "commit": _commit(),
        "built in": str(Path(quorvane.__file__).resolve().parent),
    }


def _processor():
    try:
        lines = Path("/proc/cpuinfo").read_text().splitlines()
    except OSError:
        return platform.processor()
    return next((line.split(":")[1].strip() for line in lines if "model name" in line), "unknown")


def _version(name):
    try:
        return importlib.metadata.version(name)
    except importlib.metadata.PackageNotFoundError:
        return "absent"


def _commit():
    command = ["git", "-C", str(Path(__file__).parent), "rev-parse", "--short", "HEAD"]
    try:
        return subprocess.run(command, capture_output=True, text=True).stdout.strip() or "unknown"
    except FileNotFoundError:
        return "unknown"
