"""bench/compare finds differences between two runs; the page of plots contains a whole run."""
import json
import pathlib
import subprocess

import pytest
from measure import page, results

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"


def run_of(tmp_path, name, figures):
    """@param figures  {name: (unit, values)}"""
    file = tmp_path / f"{name}.json"
    file.write_text(
        json.dumps(
            {
                "about": {"revision": name, "machine": {"processors": 2}, "when": "today"},
                "figures": {key: {"unit": unit, "values": values} for key, (unit, values) in figures.items()},
            }
        )
    )
    return file


def compared(before, after):
    """@return the last line for each figure, by its name"""
    told = subprocess.run([BENCH / "compare", before, after], check=True, capture_output=True, text=True).stdout
    return {line[:68].strip(): line.split() for line in told.splitlines()[2:]}


@pytest.mark.parametrize(
    "unit, before, after, ratio, word",
    [
        ("us", [100, 101, 102], [80, 81, 82], "x0.802", "better"),
        ("us", [100, 101, 102], [120, 121, 122], "x1.198", "WORSE"),
        ("us", [90, 100, 110], [95, 104, 112], "x1.040", "same"),
        ("calls/s", [100, 101, 102], [120, 121, 122], "x1.198", "better"),
        ("calls/s", [100, 101, 102], [80, 81, 82], "x0.802", "WORSE"),
        ("", [0, 0, 0], [0, 0, 0], "x1.000", "same"),
        ("", [0, 0, 0], [1, 1, 1], "xinf", "WORSE"),
    ],
)
def test_a_difference_counts_when_it_is_larger_than_the_spread(tmp_path, unit, before, after, ratio, word):
    line = compared(
        run_of(tmp_path, "before", {"figure": (unit, before)}), run_of(tmp_path, "after", {"figure": (unit, after)})
    )["figure"]
    assert ratio in line
    assert line[-1] == word


def test_a_figure_that_only_one_run_has_is_named(tmp_path):
    lines = compared(run_of(tmp_path, "before", {"old": ("us", [1])}), run_of(tmp_path, "after", {"new": ("us", [1])}))
    assert lines["old"][1:] == lines["new"][1:] == ["in", "one", "of", "them", "only"]


def test_a_missed_goal_is_said(tmp_path):
    _, figures = results.read(run_of(tmp_path, "a", {"wake-ups when idle": ("a second", [0.5]), "other": ("us", [3])}))
    first, second = results.table(figures).splitlines()
    assert first.endswith("goal: at most 0, NOT REACHED")
    assert "goal" not in second


def test_the_page_needs_nothing_else_and_shows_every_figure(tmp_path):
    about, figures = results.read(
        run_of(
            tmp_path,
            "<run>",
            {"latency: daemon": ("us", [3, 4, 9]), "latency: bus floor": ("us", [1, 2, 3]), "size": ("bytes", [7])},
        )
    )
    text = page.page(about, figures)
    assert text.count("<svg") == 2, "figures of one unit and one title stand in one plot"
    assert text.count("<rect") == 3
    assert "<run>" not in text
    for needed in ("src=", "href=", "@import", "url("):
        assert needed not in text
