"""The picture of a replay, in each format and of any table."""

import xml.dom.minidom

import numpy as np
import pytest

import quorvane as qv

pandas = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")

from quorvane.cli.picture import draw_picture  # noqa: E402

PNG = b"\x89PNG\r\n\x1a\n"


def evaluation(days=60, instruments=6, names=None):
    draw = np.random.default_rng(2).normal(scale=0.01, size=(2, days, instruments))
    names = names or [f"I{n}" for n in range(instruments)]
    columns = pandas.Index(names, dtype=object)
    signal, returns = (pandas.DataFrame(each, columns=columns) for each in draw)
    return qv.evaluate(signal, returns, horizons=[1, 5])


def test_a_picture_is_a_png_of_some_size(tmp_path):
    draw_picture(tmp_path / "p.png", evaluation(), None, "t", "s")
    data = (tmp_path / "p.png").read_bytes()
    assert data.startswith(PNG)
    width, height = (int.from_bytes(data[at : at + 4], "big") for at in (16, 20))
    assert width == 1800
    assert height > 1000


@pytest.mark.parametrize(("name", "start"), [("p.pdf", b"%PDF"), ("P.SVG", b"<?xml")])
def test_other_formats_go_by_the_ending_and_are_the_same_each_time(tmp_path, name, start):
    found = evaluation(days=20)
    draw_picture(tmp_path / name, found, None, "t", "s")
    first = (tmp_path / name).read_bytes()
    assert first.startswith(start)
    draw_picture(tmp_path / name, found, None, "t", "s")
    assert (tmp_path / name).read_bytes() == first


@pytest.mark.parametrize("name", ["p.png", "p.pdf", "p.svg"])
def test_text_that_no_picture_can_hold_is_replaced(tmp_path, name):
    odd = "a $ and \0\x1b\udcff\uffff<b>&"
    found = evaluation(days=20, names=[f"{odd}{n}" for n in range(6)])
    draw_picture(tmp_path / name, found, None, odd, odd)
    if name == "p.svg":
        xml.dom.minidom.parse(str(tmp_path / name))
