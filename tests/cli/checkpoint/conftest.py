"""Files of a replay, and ways to run it."""

import pytest

from cli.checkpoint.replays import EXPRESSION, STRUCTURES, outputs, walk
from quorvane.cli.table_io import write_table


@pytest.fixture
def files(tmp_path, write):
    """Paths of the table, the structures and the checkpoint."""
    write_table(tmp_path / "prices.csv", walk())
    write("structures.toml", STRUCTURES)
    return tmp_path


@pytest.fixture
def go(replay, files):
    """Run the replay with an output and a trace of the given name."""

    def go(name, *flags, **options):
        return replay(
            *flags,
            **{
                "table": files / "prices.csv",
                "structures": files / "structures.toml",
                "expression": EXPRESSION,
                "output": files / f"{name}.csv",
                "trace": files / f"{name}.npz",
                **options,
            },
        )

    return go


@pytest.fixture
def whole(go, files):
    """The outputs' bytes of a replay that was never stopped."""
    assert go("whole").status == 0
    return outputs(files, "whole")
