"""The picture: it is drawn for whatever the tables hold, and its parts compute what they say."""

import dataclasses
import xml.dom.minidom

import numpy as np
import pytest

from quorvane.cli.plot import Picture, _binned, _running_sum, _spread, choose_evenly, draw_picture
from quorvane.cli.table import Dates, Table
from quorvane.cli.time_axis import parse_dates

pytestmark = pytest.mark.plain_python

PNG = b"\x89PNG\r\n\x1a\n"


@pytest.fixture
def picture():
    """Make a picture of random walks."""
    pytest.importorskip("matplotlib")

    def picture(days=40, instruments=5, structures=4, dated=True, **changes):
        rng = np.random.default_rng(days + instruments)
        names = tuple(f"I{i}" for i in range(instruments))
        labels = np.datetime_as_string(np.datetime64("2020-01-01") + np.arange(days))
        keys = [f"S{i}" for i in range(structures)]
        values = np.exp(rng.normal(0, 0.02, size=(days, instruments)).cumsum(axis=0))
        given = {
            "title": "Walks",
            "table": Table(values, names, Dates("Date", tuple(labels)) if dated else None),
            "input_kind": "returns",
            "expression": "rank",
            "policy": "equal_split",
            "structures": {key: {names[0]: 1.0, names[-1]: -1.0} for key in keys},
            "shown_keys": keys,
            "entered": rng.normal(size=(days, structures)),
            "left": rng.random(size=(days, structures)),
            "output": rng.normal(size=(days, instruments)),
        }
        return Picture(**{**given, **changes})

    return picture


def test_a_picture_is_a_png_of_some_size(picture, tmp_path):
    draw_picture(tmp_path / "p.png", picture())
    data = (tmp_path / "p.png").read_bytes()
    assert data.startswith(PNG)
    width, height = (int.from_bytes(data[at : at + 4], "big") for at in (16, 20))
    assert width == 1725
    assert height > 1000


@pytest.mark.parametrize(("name", "start"), [("p.pdf", b"%PDF"), ("p.svg", b"<?xml")])
def test_other_formats_go_by_the_ending_and_are_the_same_each_time(picture, tmp_path, name, start):
    draw_picture(tmp_path / name, picture())
    first = (tmp_path / name).read_bytes()
    assert first.startswith(start)
    draw_picture(tmp_path / name, picture())
    assert (tmp_path / name).read_bytes() == first


@pytest.mark.parametrize(
    "shape",
    [
        {"days": 1},
        {"days": 2, "instruments": 1, "structures": 1},
        {"days": 900, "instruments": 120, "structures": 60},
        {"dated": False},
        {"input_kind": "levels"},
        {"title": "a $ and another $ in_a title \N{GREEK SMALL LETTER ALPHA} \N{CJK RADICAL SUN}"},
    ],
)
def test_any_shape_is_drawn(picture, tmp_path, shape):
    draw_picture(tmp_path / "p.png", picture(**shape))
    assert (tmp_path / "p.png").read_bytes().startswith(PNG)


@pytest.mark.parametrize("fill", [np.nan, 0.0, -1.0, np.inf])
def test_empty_constant_and_infinite_values_are_drawn(picture, tmp_path, fill):
    flat = picture()
    for array in (flat.entered, flat.left, flat.output, flat.table.values):
        array[:] = fill
    draw_picture(tmp_path / "p.png", flat)
    assert (tmp_path / "p.png").read_bytes().startswith(PNG)


@pytest.mark.parametrize("kind", ["levels", "returns"])
@pytest.mark.parametrize(
    "column",
    [[1e308, -1e308, 1e308], [5e-324, 1e308, 1.0], [1e308, 5e-324, 1.0], [-1e308] * 3, [1e308] * 3],
    ids=str,
)
def test_the_largest_and_the_smallest_numbers_are_drawn(picture, tmp_path, column, kind):
    extreme = picture(days=3, input_kind=kind)
    for array in (extreme.entered, extreme.left, extreme.output, extreme.table.values):
        array[:, 0] = column
        array[:, -1] = np.negative(column) if array is not extreme.table.values else column
    draw_picture(tmp_path / "p.png", extreme)
    assert (tmp_path / "p.png").read_bytes().startswith(PNG)


def test_a_column_of_infinities_among_prices_is_left_out(picture, tmp_path):
    odd = picture(days=3)
    odd.table.values[:, 0] = np.inf
    draw_picture(tmp_path / "p.png", odd)
    assert (tmp_path / "p.png").read_bytes().startswith(PNG)


@pytest.mark.parametrize("name", ["p.png", "p.pdf", "p.svg"])
def test_text_that_no_picture_can_hold_is_replaced(picture, tmp_path, name):
    bad, plain = "\0\x1b\udcff\uffff", picture(days=2)
    names = tuple(f"I{bad}{i}" for i in range(5))
    keys = [f"S{bad}{i}" for i in range(4)]
    odd = dataclasses.replace(
        plain,
        title=f"a{bad}b",
        table=Table(plain.table.values, names, Dates("Date", (f"d{bad}", f"e{bad}"))),
        structures={key: {names[0]: 1.0} for key in keys},
        shown_keys=keys,
    )
    draw_picture(tmp_path / name, odd)
    if name == "p.svg":
        xml.dom.minidom.parse(str(tmp_path / name))


def test_dates_that_are_not_calendar_dates_label_the_days(picture, tmp_path):
    odd = picture(days=3)
    table = Table(odd.table.values, odd.table.instruments, Dates("Date", ("Mon", "Tue", "Wed")))
    draw_picture(tmp_path / "p.svg", picture(days=3, table=table))
    assert (tmp_path / "p.svg").exists()


@pytest.mark.parametrize(
    ("text", "first"),
    [
        (("2020-01-02", "2020-01-03"), "2020-01-02T00:00:00"),
        (("20200102", "20200103"), "2020-01-02T00:00:00"),
        (("0002-01-01", "9998-12-31"), "0002-01-01T00:00:00"),
        (("2020-01-02 09:30:00", "2020-01-02 09:31:00"), "2020-01-02T09:30:00"),
        (("2020-01-02T00:00:00.000+00:00", "2020-01-03T00:00:00.000+00:00"), "2020-01-02T00:00:00"),
    ],
)
def test_iso_dates_in_order_make_a_calendar(text, first):
    assert str(parse_dates(text)[0]) == first


@pytest.mark.parametrize(
    "text",
    [
        ("1", "2"),
        ("2020-01-03", "2020-01-02"),
        ("2020-01-02", "2020-01-02"),
        ("2020-13-01",),
        ("0000-12-31", "0003-01-01"),
        ("00001231", "00030101"),
        ("9998-12-31", "9999-12-31"),
        ("3 Jan",),
        ("2020-01-02", ""),
    ],
)
def test_anything_else_makes_none(text):
    assert parse_dates(text) is None


def test_positions_are_chosen_evenly():
    assert choose_evenly(3, 5) == [0, 1, 2]
    assert choose_evenly(101, 5) == [0, 25, 50, 75, 100]
    assert choose_evenly(0, 5) == []


def test_labels_keep_their_distance_and_stay_near():
    assert _spread([0.1, 0.5, 0.9], 0.1) == pytest.approx([0.1, 0.5, 0.9])
    assert _spread([0.5, 0.5, 0.5], 0.1) == pytest.approx([0.4, 0.5, 0.6])
    crowded = _spread(sorted(np.random.default_rng(0).random(12).tolist()), 0.1)
    assert np.diff(crowded).min() >= 0.1 - 1e-12


def test_means_over_runs_of_days_leave_out_what_is_missing():
    values = np.full((281, 2), 2.0)
    values[0, 0] = values[3:6, 1] = np.nan
    values[1, 1] = np.inf
    means, starts = _binned(values)
    assert starts.tolist() == list(range(0, 281, 3))
    assert means[0].tolist() == [2.0, 2.0]
    assert np.isnan(means[1, 1])


def test_a_running_sum_starts_with_the_first_value():
    assert _running_sum(np.array([np.nan, 1.0, np.nan, 2.0])).tolist()[1:] == [1.0, 1.0, 3.0]
    assert np.isnan(_running_sum(np.array([np.nan, 1.0]))[0])
