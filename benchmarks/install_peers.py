"""Installs what the benchmarks compare with, by the interpreter that runs this, one by one.

    python benchmarks/install_peers.py

It is the wheel's extra `bench`. A library that has no wheel for this Python, or that wants another
NumPy than the one that is installed, is left out, and said to be.
"""

import importlib.metadata
import re
import subprocess
import sys


def requirements():
    """What the extra asks for."""
    wanted = importlib.metadata.requires("quorvane") or []
    return [text.split(";")[0].strip() for text in wanted if re.search(r"extra == .bench\b", text)]


def main():
    numpy = f"numpy=={importlib.metadata.version('numpy')}"
    pip = [sys.executable, "-m", "pip", "install", "-qq", "--only-binary", ":all:", numpy]
    for requirement in requirements():
        if subprocess.run([*pip, requirement], stderr=subprocess.DEVNULL).returncode:
            print(f"{requirement} cannot be had for this Python and {numpy}: left out")


if __name__ == "__main__":
    main()
