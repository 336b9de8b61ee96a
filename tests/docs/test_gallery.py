"""Every program of the gallery runs, and draws."""

import runpy

import pytest

from docs.pages import ROOT, libraries_of, require_libraries
from quorvane.expressions import registered

PROGRAMS = sorted((ROOT / "docs/gallery").glob("plot_*.py"))


def test_the_gallery_has_an_order_for_each_program():
    setting = (ROOT / "docs/_extensions/gallery_setting.py").read_text(encoding="utf-8")
    assert [path.name for path in PROGRAMS if f'"{path.name}"' not in setting] == []
    assert len(PROGRAMS) >= 8


@pytest.mark.parametrize("path", PROGRAMS, ids=lambda path: path.stem)
def test_a_program_runs_and_draws(path, monkeypatch, tmp_path):
    code = path.read_text(encoding="utf-8")
    assert "matplotlib" in libraries_of([code])
    require_libraries([code])
    from matplotlib import pyplot

    shown = []
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(registered, "FUNCTIONS", {})
    monkeypatch.setattr(pyplot, "show", lambda: shown.append(pyplot.get_fignums()))
    pyplot.switch_backend("agg")
    try:
        runpy.run_path(str(path), run_name="__main__")
        assert [numbers for numbers in shown if not numbers] == []
        assert len(pyplot.get_fignums()) == len(shown) > 0
    finally:
        pyplot.close("all")
    assert list(tmp_path.iterdir()) == []
