"""A call takes no more instructions and allocations than recorded."""
import pytest
from measure import gate, stage  # first: adds the harness to Python's path

from harness import daemon

FIGURES = {"instructions": 100_000, "allocations": 400.0}


@pytest.mark.skipif(daemon.is_sanitized(), reason="a sanitizer's instructions are not the daemon's")
def test_a_call_takes_no_more_than_recorded_and_allowed(tmp_path):
    where = gate.machine()
    figures = gate.figures_of(where)
    if not figures:
        pytest.skip(f"no figures are recorded for {where}; bench/gate --record does it")
    stage.build()
    with stage.Stage(tmp_path) as on:
        good, found = gate.tried(lambda: gate.count(on), figures)
    print(gate.shown(found, figures))
    assert good, gate.shown(found, figures)


@pytest.mark.parametrize(
    "instructions, allocations, good", [(105_000, 408, True), (105_001, 400, False), (100_000, 408.1, False), (1, 1, True)]
)
def test_the_gate_tells_too_much_of_either_from_what_is_allowed(instructions, allocations, good):
    assert gate.passes({"instructions": instructions, "allocations": allocations}, FIGURES) == good


def counts(*instructions):
    return [{"instructions": number, "allocations": 400} for number in instructions]


@pytest.mark.parametrize(
    "found, good", [(counts(90_000), True), (counts(110_000, 104_000), True), (counts(110_000, 106_000, 120_000), False)]
)
def test_only_what_is_worse_each_time_fails(found, good):
    left = list(found)
    assert gate.tried(lambda: left.pop(0), FIGURES) == (good, found)


def test_what_is_shown_names_both_counts_and_what_is_allowed():
    first, second = gate.shown([{"instructions": 110_000, "allocations": 440}], FIGURES).splitlines()
    assert "110,000 instructions a call" in first and "x1.100, x1.05 allowed" in first
    assert "440 allocations a call" in second and "x1.100, x1.02 allowed" in second


def test_a_machine_is_held_to_the_figures_that_it_has(tmp_path, monkeypatch):
    files = {kind: tmp_path / kind for kind in FIGURES}
    monkeypatch.setattr(gate, "FILES", files)
    gate.record("here", 100, files["instructions"])
    assert gate.figures_of("here") == {"instructions": 100}
    gate.record("here", 7.5, files["allocations"])
    assert gate.figures_of("here") == {"instructions": 100, "allocations": 7.5}


def test_a_recorded_figure_is_kept_beside_those_of_other_machines(tmp_path):
    file = tmp_path / "figures.json"
    assert gate.recorded(file) == {}
    gate.record("here", 100, file)
    gate.record("there", 200, file)
    gate.record("here", 150, file)
    assert gate.recorded(file) == {"here": 150, "there": 200}
