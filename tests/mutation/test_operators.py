"""The mutation runner itself: the edits that its operators find in a source, and the texts that they leave alone."""

import pathlib
import sys
import tomllib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import covering  # noqa: E402
import operators  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCE = """\
#define MACRO(x) if (x == 1) { Call(); }
// a == b in a comment
int Sum(int a)
{
    const CBillingAutoLock oLock(&m_tLock);
    Log("a == b");
    if (a == 0 && !Ready()) {
        return a + 1;
    }
    First(a,
          a);
    Second();
    return 2;
}
"""


def edits(operator):
    code = operators.blanked(SOURCE)
    return [(each.before, each.after) for each in operators.OPERATORS[operator]("x.cpp", SOURCE, code)]


def test_comparisons_are_turned_outside_of_texts_comments_and_macros():
    assert edits("comparison") == [("if (a == 0 && !Ready()) {", "if (a != 0 && !Ready()) {")]


def test_logic_is_turned():
    assert edits("logic") == [
        ("if (a == 0 && !Ready()) {", "if (a == 0 || !Ready()) {"),
        ("if (a == 0 && !Ready()) {", "if (a == 0 && Ready()) {"),
    ]


def test_constants_and_sums_are_changed():
    assert ("return 2;", "return 3;") in edits("constant")
    assert ("return a + 1;", "return a - 1;") in edits("arithmetic")


def test_calls_are_removed_whole():
    assert [before for before, _ in edits("removal")] == ['Log("a == b");', "First(a, a);", "Second();"]


def test_neighbours_are_swapped():
    assert edits("swap") == [("First(a, a); Second();", "Second(); First(a, a);")]


def test_locks_are_dropped():
    assert edits("lock") == [("const CBillingAutoLock oLock(&m_tLock);", "")]


def test_an_edit_changes_its_place_alone():
    mutant = [each for each in operators.mutants("x.cpp", SOURCE) if each.operator == "swap"][0]
    assert mutant.applied(SOURCE) == SOURCE.replace(
        "    First(a,\n          a);\n    Second();\n", "    Second();\n    First(a,\n          a);\n"
    )


def test_every_source_has_programs_that_are_built():
    built = (ROOT / "build" / "build.ninja").read_text()
    for source in (source for room in ("service", "platform/curl", "platform/keystore") for source in (ROOT / room).rglob("*")):
        if source.suffix in (".cpp", ".h"):
            for program in covering.programs_for(str(source.relative_to(ROOT))):
                assert all(f"build {target}: " in built for target in covering.targets(program)), program


def test_every_named_edit_and_every_equivalent_one_still_has_its_place():
    for edit in tomllib.loads((ROOT / "tests/mutation/edits.toml").read_text())["edit"]:
        assert (ROOT / edit["file"]).read_text().count(edit["find"]) == 1, edit["name"]
    listed = tomllib.loads((ROOT / "tests/mutation/equivalent.toml").read_text())
    for entry in listed.get("equivalent", []):
        keys = {mutant.key() for mutant in operators.mutants(entry["file"], (ROOT / entry["file"]).read_text())}
        key = (entry["file"], entry["operator"], entry["before"], entry["after"])
        assert key in keys, key
        assert entry["reason"]
