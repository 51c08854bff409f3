"""The mutation runner itself: the edits that its operators find in a source, and the texts that they leave alone."""

import pathlib
import subprocess
import sys
import tomllib

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import covering  # noqa: E402
import operators  # noqa: E402
import programs  # noqa: E402
import schemata  # noqa: E402
import workshop  # noqa: E402

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


@pytest.mark.parametrize(
    "one, two, apart",
    [
        ("tInfo.a = 1;", "tInfo.b = 2;", True),
        ("tInfo.a = 1;", "tInfo.b = tInfo.a;", False),
        ("tInfo.a = 1;", "tInfo.a = 2;", False),
        ("tInfo.a = 1;", "tInfo = tOther;", False),
        ("tInfo.a = 1;", "m_iOf = 2;", False),
        ("tInfo.a = Call();", "tInfo.b = 2;", False),
        ("m_iOf = 1;", "tInfo.b = 2;", False),
        ('BILLING_INFO("a");', "tInfo.b = 2;", False),
        ("tInfo.b = 2;", 'BILLING_INFO("a", tInfo.a);', True),
        ("tInfo.b = 2;", 'BILLING_INFO("a", tInfo.b);', False),
        ("tInfo.b = 2;", "Send();", False),
    ],
)
def test_statements_without_a_common_value_are_not_swapped(one, two, apart):
    assert operators.is_apart(one, two) == apart


def test_locks_are_dropped():
    assert edits("lock") == [("const CBillingAutoLock oLock(&m_tLock);", "")]


def test_an_edit_changes_its_place_alone():
    mutant = [each for each in operators.mutants("x.cpp", SOURCE) if each.operator == "swap"][0]
    assert mutant.applied(SOURCE) == SOURCE.replace(
        "    First(a,\n          a);\n    Second();\n", "    Second();\n    First(a,\n          a);\n"
    )


def test_an_octal_constant_stays_octal():
    assert operators.one_more("0700") == "0701"
    assert operators.one_more("0x0f") == "16"
    assert operators.one_more("0") == "1"


TWO = """\
constexpr int Five()
{
    return 5;
}
int Sign(int a)
{
    if (a < 0) {
        return __LINE__;
    }
    return 1;
}
"""


def tried_together():
    mutants = [each for each in operators.mutants("x.cpp", TWO) if schemata.body_of(each, schemata.bodies(TWO)) is not None]
    return dict(enumerate(mutants, 1))


def test_the_bodies_are_found_and_a_constexpr_function_has_none():
    assert [TWO[start:end].split()[0] for start, end in schemata.bodies(TWO)] == ["if"]
    assert [mutant.line for mutant in tried_together().values()] == [7, 7, 10]


def output_of(tmp_path, number):
    """Compiles all mutants of TWO, and runs one of them."""
    source, program = tmp_path / "x.cpp", tmp_path / "x"
    calls = 'int main() { std::printf("%d %d %d\\n", Sign(0), Sign(1), Sign(-1)); }\n'
    source.write_text(schemata.combined("x.cpp", TWO, tried_together()) + calls)
    subprocess.run(["c++", "-w", "-o", program, source], check=True)
    run = subprocess.run([program], env={"BILLING_MUTANT": str(number)}, stdout=subprocess.PIPE, text=True, check=True)
    return run.stdout


def test_one_program_holds_all_mutants_and_keeps_the_lines(tmp_path):
    shown = {number: output_of(tmp_path, number) for number in (0, *tried_together())}
    assert shown[0] == "1 1 8\n"
    assert {tried_together()[number].after: text for number, text in shown.items() if number} == {
        "if (a <= 0) {": "8 1 8\n",
        "if (a < 1) {": "8 1 8\n",
        "return 2;": "2 2 8\n",
    }
    assert output_of(tmp_path, schemata.TRACE).count("@0\n") == 3


def test_the_compiler_names_the_mutants_that_it_refuses():
    said = "mutant12/service/x.cpp:7:9: error: no\nmutant3/x.cpp:1:1: warning: yes\nx.cpp:1:2: error: other\n"
    assert schemata.refused(said) == {12}


def test_a_trace_tells_which_tests_reach_a_function():
    said = "@0\n[ RUN      ] A.One\n\n@1\n@1\n[       OK ] A.One (0 ms)\n[ RUN      ] A.Two\n@0\n@1\n"
    assert schemata.reached(said) == {0: [None, "A.Two"], 1: ["A.One", "A.Two"]}


def test_the_likely_tests_run_first_and_the_slow_ones_last():
    said = "".join(
        f"[ RUN      ] A.{name}\n@0\n[       OK ] A.{name} ({took} ms)\n"
        for name, took in (("Slow", 900), ("One", 3), ("Two", 4))
    )
    mutant = next(iter(tried_together().values()))
    plan = workshop.Plan(schemata.bodies(TWO), {"program": said, "other": "[ RUN      ] B.One\n@1\n"})
    assert list(plan.runs(mutant)) == [("program", ["A.One", "A.Two"]), ("program", ["A.Slow"])]
    plan.killed(mutant, "program", "A.Two (signal 6)")
    assert list(plan.runs(mutant)) == [("program", ["A.Two"]), ("program", ["A.One"]), ("program", ["A.Slow"])]


@pytest.mark.parametrize(
    "script, killer",
    [
        ("exit 0", None),
        ("echo '[  FAILED  ] A.One (1 ms)'; exit 1", "A.One"),
        ("echo '[ RUN      ] A.Two'; kill -9 $$", "A.Two (signal 9)"),
        ("echo '[ RUN      ] A.Three'; sleep 100", "A.Three (no end)"),
        ("test $BILLING_MUTANT = 0", None),
    ],
)
def test_a_program_that_fails_crashes_or_does_not_end_names_its_test(tmp_path, monkeypatch, script, killer):
    program = tmp_path / "program"
    program.write_text(f"#!/bin/sh\n{script}\n")
    program.chmod(0o755)
    monkeypatch.setattr(programs, "IDLE_SECONDS", 2)
    assert programs.killer(*programs.run(program), "program") == killer


def test_every_source_has_programs_that_are_built(tmp_path):
    subprocess.run(["meson", "setup", tmp_path, ROOT, "-Dtests=true"], check=True, stdout=subprocess.DEVNULL)
    built = (tmp_path / "build.ninja").read_text()
    for source in (source for room in ("service", "platform/curl", "platform/keystore") for source in (ROOT / room).rglob("*")):
        if source.suffix in (".cpp", ".h"):
            for program in covering.programs_for(str(source.relative_to(ROOT))):
                assert all(f"build {target}: " in built for target in covering.targets(program)), program


def test_every_named_edit_and_every_equivalent_one_still_has_its_place():
    for edit in tomllib.loads((ROOT / "tests/mutation/edits.toml").read_text())["edit"]:
        assert (ROOT / edit["file"]).read_text().count(edit["find"]) == 1, edit["name"]
    for name, kind, detail in (("equivalent", "equivalent", "reason"), ("integration", "killed", "test")):
        for entry in tomllib.loads((ROOT / f"tests/mutation/{name}.toml").read_text()).get(kind, []):
            keys = {mutant.key() for mutant in operators.mutants(entry["file"], (ROOT / entry["file"]).read_text())}
            key = (entry["file"], entry["operator"], entry["before"], entry["after"])
            assert key in keys, key
            assert entry[detail]
            assert kind == "equivalent" or (ROOT / entry["test"].partition("::")[0]).exists()
