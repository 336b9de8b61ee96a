"""What is preloaded into writers, and folders on a disk that is quick to flush."""

import importlib.util
import shutil
import tempfile
from pathlib import Path

import pytest

from powercut.recording import build_preloaded

_MEMORY = Path("/dev/shm")
_ROOM = 1 << 29
# The stores need MessagePack, an extra.
_NEED_STORES = ["test_replay.py", "test_stores.py", "test_wrong_writers.py"]
collect_ignore_glob = [] if importlib.util.find_spec("msgpack") else _NEED_STORES


@pytest.fixture(scope="session")
def preloaded(tmp_path_factory):
    """The compiled library that notes a writer's calls."""
    return build_preloaded(tmp_path_factory.mktemp("powercut"))


@pytest.fixture
def work():
    """A folder in memory where there is enough: thousands of images are flushed there."""
    has_room = _MEMORY.is_dir() and shutil.disk_usage(_MEMORY).free > _ROOM
    folder = Path(tempfile.mkdtemp(dir=_MEMORY if has_room else None))
    yield folder
    shutil.rmtree(folder)
