"""NumPy is enough until a table of another library is given."""

import subprocess
import sys

import pytest

import quorvane

pytestmark = pytest.mark.plain_python

SOURCE = quorvane.__file__.rpartition("/quorvane/")[0]


def run(code):
    """Run code in an interpreter of its own."""
    code = f"import sys; sys.path.insert(0, {SOURCE!r})\n{code}"
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)


def test_importing_the_package_and_reading_arrays_needs_numpy_only():
    run(
        "from quorvane.tables import read_row, read_table\n"
        "read_table([[1.0]]).matrix('A'), read_row({'A': 1.0}).vector('A')\n"
        "assert not {'pandas', 'polars', 'pyarrow', 'narwhals'} & set(sys.modules)"
    )


@pytest.mark.parametrize("library", ["polars", "pyarrow"])
def test_a_table_that_needs_narwhals_says_how_to_install_it(library):
    pytest.importorskip(library)
    make = "polars.DataFrame" if library == "polars" else "pyarrow.table"
    found = run(
        f"sys.modules['narwhals'] = None\nimport {library}\n"
        "from quorvane.tables import read_table\n"
        f"try: read_table({make}({{'A': [1.0]}}))\n"
        "except ImportError as error: print(error)"
    ).stdout
    assert found == (
        f"table: a table of {library} needs narwhals; "
        "install it with: pip install 'quorvane[frames]'\n"
    )
