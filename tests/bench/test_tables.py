"""The tables of docs/PERFORMANCE.md contain the values of the results file."""
import json

import pytest
from measure import goals, page, results, services, tables

SDBUS, SOUP = services.PEERS


def run_of(tmp_path, figures, behaviour=None, **about):
    """@param figures  {name: (unit, values)}"""
    file = tmp_path / "run.json"
    content = {
        "about": {"revision": "abc", "machine": {"processors": 2}, "when": "today", **about},
        "figures": {name: {"unit": unit, "values": values} for name, (unit, values) in figures.items()},
        "behaviour": behaviour or {},
    }
    file.write_text(json.dumps(content), encoding="utf-8")
    return file


def test_the_document_has_the_tables_of_its_results_file():
    document = tables.DOCUMENT.read_text(encoding="utf-8")
    assert tables.written(document, tables.all_of(tables.FILE)) == document


def test_a_peer_stands_beside_the_daemon_with_its_ratio(tmp_path):
    name = "private, idle"
    file = run_of(
        tmp_path,
        {f"{name}: daemon": ("KiB", [2048]), f"{name}: {SDBUS}": ("KiB", [1024, 1000, 3000]), f"{name}: other": ("KiB", [1])},
    )
    rows = tables.all_of(file)["peers"].splitlines()
    assert rows[2:] == ["| private, idle, MiB | 2 | - | 1 (0.5) | - |"]


def test_each_row_of_the_table_names_a_figure_of_its_own():
    names = [name for name, _ in tables.ROWS.values()]
    assert len(set(names)) == len(names)


def test_a_goal_is_met_at_its_bound_and_not_beyond(tmp_path):
    most, least = "exec to the name: daemon / both in one", "rate, http1, 512 bytes, 64 in flight: daemon / bus floor"
    bounds = {name: goals.GOALS[name].value for name in (most, least)}
    for figures, words in (
        ({most: bounds[most], least: bounds[least]}, ["met", "met"]),
        ({most: bounds[most] + 0.01, least: bounds[least] - 0.01}, ["**not met**", "**not met**"]),
    ):
        file = run_of(tmp_path, {name: ("", [value]) for name, value in figures.items()})
        rows = tables.all_of(file)["goals"].splitlines()[2:]
        assert [row.split(" | ")[-1].rstrip(" |") for row in rows] == words


def test_the_floors_stand_beside_the_daemon_with_their_ratio(tmp_path):
    file = run_of(
        tmp_path,
        {
            "allocations a call, 1 in flight: bus floor": ("", [300]),
            "allocations a call, 1 in flight: daemon": ("", [400]),
            "rate, http1, 512 bytes, 8 in flight: bus floor": ("calls/s", [9]),
            "rate, http1, 512 bytes, 8 in flight: daemon": ("calls/s", [3]),
        },
    )
    assert tables.all_of(file)["given"].splitlines()[2:] == ["| allocations a call, 1 in flight | 300 (0.75) | - | - | 400 |"]


def test_behaviour_is_told_in_the_words_of_the_run(tmp_path):
    assert tables.all_of(run_of(tmp_path, {}))["behaviour"] == "Not measured in this run."
    seen = {"a row": {"daemon": "result 0", SOUP: "no answer <b>"}}
    file = run_of(tmp_path, {"size": ("bytes", [1])}, seen)
    assert tables.all_of(file)["behaviour"].splitlines()[2:] == ["| a row | result 0 | no answer <b> |"]
    text = page.page(*results.read(file), results.read_behaviour(file))
    assert "<td>result 0</td><td>no answer &lt;b&gt;</td>" in text


@pytest.mark.parametrize("share, busy", [(5, False), (5.1, True)])
def test_a_busy_machine_is_said(tmp_path, share, busy):
    file = run_of(tmp_path, {"size": ("bytes", [1])}, **{"percent of others": share})
    for text in (tables.all_of(file)["run"], page.page(*results.read(file))):
        assert ("with care" in text) == busy


@pytest.mark.parametrize("share, expected", [(5, ["private, idle, MiB", "exec to the name, ms"]), (6, ["private, idle, MiB"])])
def test_times_of_a_busy_machine_are_left_out(tmp_path, share, expected):
    figures = {"exec to the name: daemon": ("ms", [9]), "private, idle: daemon": ("KiB", [9])}
    figures["exec to the name: daemon / both in one"] = ("", [1])
    found = tables.all_of(run_of(tmp_path, figures, **{"percent of others": share}))
    assert [row.split("|")[1].strip() for row in found["peers"].splitlines()[2:]] == expected
    assert ("exec" in found["goals"]) == (share == 5)


def test_a_results_file_is_read_as_it_was_written(tmp_path):
    figures = results.Figures()
    figures.add("one: daemon", "us", 1.25)
    figures.add("one: daemon", "us", 2.5)
    figures.tell("a row", "daemon", 'text "caf\ufffd"')
    file = tmp_path / "run.json"
    figures.write(file)
    about, found = results.read(file)
    assert found["one: daemon"].values == [1.25, 2.5]
    assert results.read_behaviour(file) == {"a row": {"daemon": 'text "caf\ufffd"'}}
    assert about["percent of others"] >= 0


def test_a_document_without_a_block_is_refused():
    with pytest.raises(ValueError):
        tables.written("no block", {"goals": "text"})
