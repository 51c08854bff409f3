"""Options and other arguments of a command may come in any order."""
import itertools

import pytest
from billing_lab.command import cli as words

COMMANDS = [
    (["call", "get_product_list", "appid=app-1", "serverType=S"], [["--json"], ["--timeout", "5"]]),
    (["answer", "country", "a.json", "b.json"], [["--template"], ["--status", "503"]]),
    (["device", "country", "DE"], [["--json"]]),
    (["names", "org.example.One", "org.example.Two"], [["--remove"], ["--json"]]),
    (["diff", "one.json", "two.json"], [["--json"]]),
    (["step", "INV-000001", "renew"], [["--after", "1d"]]),
    (["logs", "lab"], [["--lines", "5"], ["--follow"]]),
]


def orders(arguments, options):
    """Every line with the arguments in their order, and each option somewhere between them."""
    places = range(1, len(arguments) + 1)
    for chosen in itertools.product(places, repeat=len(options)):
        line = [[argument] for argument in arguments]
        for place, option in zip(chosen, options):
            line[place - 1] += option
        yield sum(line, [])


@pytest.mark.parametrize("arguments, options", COMMANDS, ids=[" ".join(each[0][:1]) for each in COMMANDS])
def test_options_stand_anywhere_behind_the_command(arguments, options):
    usual, *others = [words.parser().parse_known_args(line) for line in orders(arguments, options)]
    assert usual[1] == []
    assert [other for other in others if other != usual] == []


def test_a_command_s_own_options_are_left_to_it():
    options, further = words.parser().parse_known_args(["run", "--timeout", "5", "--", "app", "--timeout", "7", "x"])
    assert (options.timeout, options.app[-4:], further) == (5, ["app", "--timeout", "7", "x"], [])
    options, further = words.parser().parse_known_args(["doctor", "-o", "terse", "--sign"])
    assert further == ["-o", "terse", "--sign"]


def test_options_and_arguments_that_mix_are_answered(lab, cli, tmp_path):
    (tmp_path / "body").write_text("{{ 6 * 7 }} for you")
    folder = lab.folder.path
    assert cli("answer", "products", "--template", tmp_path / "body", folder=folder).stdout.startswith("products: 19 bytes")
    answer = cli("call", "get_product_list", "--json", "appid=app-1", folder=folder)
    assert (answer.returncode, answer.stderr, '"resp_info": "42 for you"' in answer.stdout) == (0, "", True)


@pytest.mark.parametrize(
    "line",
    [
        ["up", "--dir", "x"],
        ["up", "--dir=x"],
        ["call", "get_product_list", "--dir", "x"],
        ["doctor", "--dir", "x"],
        ["fault", "reset", "--dir", "x"],
        ["run", "--dir", "x", "--", "true"],
    ],
    ids=" ".join,
)
def test_it_is_said_where_the_folder_is_named(cli, line):
    answer = cli(*line)
    assert (answer.returncode, answer.stderr.splitlines()[-1]) == (
        2,
        f"billing-lab: error: --dir stands before the command: billing-lab --dir DIR {line[0]}",
    )
