"""A call takes no more instructions than it did."""
import pytest
from measure import gate, stage  # first: finds the harness

from harness import daemon


@pytest.mark.skipif(daemon.is_sanitized(), reason="a sanitizer's instructions are not the daemon's")
def test_a_call_takes_at_most_five_percent_more_instructions_than_recorded(tmp_path):
    where = gate.machine()
    figure = gate.recorded().get(where)
    if figure is None:
        pytest.skip(f"no figure is recorded for {where}; bench/gate --record does it")
    stage.build()
    with stage.Stage(tmp_path) as on:
        good, found = gate.tried(lambda: gate.count(on), figure)
    print(gate.shown(found, figure))
    assert good, gate.shown(found, figure)


def test_the_gate_tells_five_percent_more_from_less():
    assert gate.passes(105_000, 100_000)
    assert not gate.passes(105_001, 100_000)


@pytest.mark.parametrize("found, good", [([90], True), ([110, 104], True), ([110, 106, 120], False)])
def test_only_what_is_worse_each_time_fails(found, good):
    left = list(found)
    assert gate.tried(lambda: left.pop(0), 100) == (good, found)


def test_a_recorded_figure_is_kept_beside_those_of_other_machines(tmp_path):
    file = tmp_path / "figures.json"
    assert gate.recorded(file) == {}
    gate.record("here", 100, file)
    gate.record("there", 200, file)
    gate.record("here", 150, file)
    assert gate.recorded(file) == {"here": 150, "there": 200}
