"""billingctl on the real daemon: answers, exit codes, and messages when there is no answer."""
import functools
import json
import os
import re
import socket
import subprocess
import sys
import tempfile

import pytest
from gi.repository import Gio
from harness import daemon
from harness.methods import EVERY_CALL
from harness.store import server
from harness.tools import billingctl
from harness.tools.billingctl import DONE, FAILED, REFUSED, TRANSFER, UNREACHABLE, USAGE

from billing_lab.device import bus as message_bus

ARGUMENTS = {
    "--appid": "app-1",
    "--invoiceid": "invoice-1",
    "--custom-id": "custom-1",
    "--check-value": "check-1",
    "--server-type": "1",
    "--item-type": "2",
    "--page-number": "5",
}
OPTIONS = {
    "get_product_list": ("--appid", "--server-type", "--check-value"),
    "get_purchase_history": ("--appid", "--custom-id", "--item-type", "--page-number", "--check-value", "--server-type"),
    "get_applied_time": ("--appid", "--custom-id", "--invoiceid", "--server-type"),
    "confirm_purchase": ("--appid", "--custom-id", "--invoiceid", "--server-type"),
    "check_server_availability": (),
}


@pytest.fixture
def ctl(bus):
    """A function that runs billingctl."""
    return functools.partial(billingctl.run, bus)


def options_of(method):
    return [part for option in OPTIONS[method] for part in (option, ARGUMENTS[option])]


@pytest.mark.parametrize("method", EVERY_CALL)
def test_each_method_is_called_with_its_arguments_in_their_places(service, ctl, caller, store, method):
    values = [ARGUMENTS[option] for option in OPTIONS[method]]
    caller.call(method, *values)

    done = ctl(method.replace("_", "-"), *options_of(method), "--json")

    assert (done.returncode, done.stderr) == (DONE, "")
    answer = json.loads(done.stdout)
    assert {key: answer[key] for key in ("method", "resp_result", "resp_info")} == {
        "method": method,
        "resp_result": 0,
        "resp_info": "{}",
    }
    assert 0 < answer["milliseconds"] < 60000
    first, second = store.requests
    assert first.raw == second.raw


def test_arguments_may_be_spelled_as_the_interface_has_them(service, ctl, caller, store):
    method = "get_purchase_history"
    names = ("appid", "customId", "ItemType", "PageNumber", "CheckValue", "serverType")
    values = [f"value-{name}" for name in names]
    caller.call(method, *values)

    done = ctl(method, *(f"--{name}={value}" for name, value in zip(names, values)))

    assert done.returncode == DONE
    first, second = store.requests
    assert first.raw == second.raw


def test_people_get_the_body_indented_and_unaltered(service, ctl, store):
    store.answer.body = b'{"price":1.10,"big":12345678901234567890,"none":[],"text":"a\\u0041,:{"}'

    done = ctl("check_server_availability")

    assert done.returncode == DONE
    assert done.stdout == ('{\n  "price": 1.10,\n  "big": 12345678901234567890,\n  "none": [],\n  "text": "a\\u0041,:{"\n}\n')
    assert done.stderr.startswith("check_server_availability: resp_result 0, the server answered (")


def test_raw_is_the_body_and_nothing_else(service, ctl, store):
    store.answer.body = b"no JSON \x1b[31m"
    done = ctl("check-server-availability", "--raw")
    assert (done.returncode, done.stdout) == (DONE, "no JSON \x1b[31m")


def test_the_terse_form_is_the_body_alone(service, ctl):
    done = ctl("-o", "terse", "check-server-availability")
    assert (done.returncode, done.stdout, done.stderr) == (DONE, "{}", "")


def test_a_hostile_body_cannot_steer_the_terminal(service, bus, store):
    store.answer.body = "\x1b]0;title\x07 \u202e evil \u0085 Grüße\n".encode()
    text = billingctl.on_a_terminal(bus, "check-server-availability", NO_COLOR="1")
    assert "\\x1b]0;title\\x07 \\u{202e} evil \\u{85} Grüße" in text
    assert "\x1b" not in text


@pytest.mark.parametrize("body", ["\x1b[31m\u009b2J\u202e", "Grüße"])
def test_json_on_a_terminal_is_the_same_and_cannot_steer_it(service, bus, store, body):
    store.answer.body = body.encode()
    text = billingctl.on_a_terminal(bus, "check-server-availability", "--json")
    assert json.loads(text)["resp_info"] == body
    assert not {"\x1b", "\u009b", "\u202e"} & set(text)
    assert ("Grüße" in text) == (body == "Grüße")


def test_colours_are_for_terminals_that_want_them(service, bus, ctl, store):
    command = (bus, "check-server-availability")
    assert "\x1b[32m" in billingctl.on_a_terminal(*command)
    for variables in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": ""}):
        assert "\x1b" not in billingctl.on_a_terminal(*command, **variables)
    assert "\x1b" not in ctl("check-server-availability").stderr


def test_a_failed_transfer_has_its_exit_code(service, ctl, store):
    store.answer = server.Reset()
    done = ctl("check-server-availability")
    assert (done.returncode, done.stdout) == (TRANSFER, "")
    assert "resp_result -1, the transfer failed; billingctl doctor" in done.stderr


def test_a_refusal_has_its_exit_code(service, ctl, a_device):
    a_device.set("network", "default_gateway", "down")
    done = ctl("check-server-availability")
    assert (done.returncode, done.stdout) == (REFUSED, "Network error, please check!\n")


def test_an_answer_is_waited_for_no_longer_than_asked(service, ctl, store):
    store.answer = server.Hang()
    done = ctl("--timeout", "0.3", "--json", "check-server-availability")
    assert done.returncode == UNREACHABLE
    assert json.loads(done.stdout) == {
        "method": "check_server_availability",
        "error": {
            "cause": "the service did not answer within 0.3 s",
            "cure": "a transfer may take 90 s: wait longer with --timeout, and look at its log",
        },
    }


def test_a_service_that_dies_with_the_call_is_no_time_out(service, bus, store):
    store.answer = server.Hang()
    with subprocess.Popen(
        [billingctl.program(), "check-server-availability"], text=True, stderr=subprocess.PIPE, env=billingctl.environment(bus)
    ) as calling:
        store.wait_for_requests(1)
        service.kill()
        _, said = calling.communicate(timeout=60)
    assert calling.returncode == UNREACHABLE
    assert said == (
        "check_server_availability: the service left the bus before it answered; look at "
        "its log; whether the store got the request is not known\n"
    )


START_BUS = "start the message bus, or name another one with --bus or DBUS_SYSTEM_BUS_ADDRESS"


def test_a_service_that_is_not_there_is_named(ctl):
    done = ctl("check-server-availability")
    assert done.returncode == UNREACHABLE
    assert done.stderr == (
        "check_server_availability: the name org.plevo.billingservice has no owner on the bus; start "
        "the service (systemctl start billing-service) and look at its log\n"
    )


@pytest.mark.parametrize("option", ["--bus", "--address"])
def test_a_bus_that_is_not_there_is_named(ctl, option):
    done = ctl(option, "unix:path=/nowhere", "check-server-availability")
    assert done.returncode == UNREACHABLE
    assert done.stderr == (
        "check_server_availability: the system bus cannot be reached: Could not "
        f"connect: No such file or directory; {START_BUS}\n"
    )


@pytest.mark.skipif(os.geteuid() != 0, reason="takes another user's part")
def test_a_bus_that_may_not_be_opened_is_named(tmp_path):
    # Every user may enter the folder, so that only the socket's own rights count.
    with tempfile.TemporaryDirectory(dir="/tmp") as folder, socket.socket(socket.AF_UNIX) as closed:
        os.chmod(folder, 0o755)
        closed.bind(f"{folder}/bus")
        os.chmod(f"{folder}/bus", 0o600)
        closed.listen()
        # Root opens the program, because other users may have no access to the tree.
        done = subprocess.run(
            [
                sys.executable,
                "-c",
                "import os, sys; program = os.open(sys.argv[1], os.O_PATH); os.setgroups([]); "
                "os.setuid(65534); os.execve(program, sys.argv[1:], {})",
                billingctl.program(),
                "--bus",
                f"unix:path={folder}/bus",
                "check-server-availability",
            ],
            capture_output=True,
            text=True,
            check=False,
        )
    assert done.returncode == UNREACHABLE
    assert done.stderr == (
        "check_server_availability: the system bus cannot be reached: Could not connect: Permission denied; "
        "call as a user who may open the bus's socket, or name another one with --bus or "
        "DBUS_SYSTEM_BUS_ADDRESS\n"
    )


@pytest.mark.parametrize("command", ["check-server-availability", "doctor"])
def test_a_bus_that_says_nothing_is_not_waited_for(ctl, tmp_path, command):
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind(str(tmp_path / "silent"))
        silent.listen()
        done = ctl("--timeout", "0.3", "--bus", f"unix:path={tmp_path / 'silent'}", command)
    assert done.returncode == (FAILED if command == "doctor" else UNREACHABLE)
    said = "what listens at the address of the bus said nothing within 0.3 s"
    assert said in done.stdout + done.stderr
    assert START_BUS in done.stdout + done.stderr


def test_a_bus_that_refuses_the_call_is_named(service, ctl, caller, tmp_path):
    rules = tmp_path / "bus.conf"
    rules.write_text(rules.read_text().replace(f'<allow send_destination="{message_bus.SERVICE}"/>', ""))
    caller.connection.call_sync(
        "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig", None, None, Gio.DBusCallFlags.NONE, 10000, None
    )

    done = ctl("check-server-availability")

    assert done.returncode == UNREACHABLE
    assert done.stderr.startswith("check_server_availability: the bus does not let this user call the service: ")
    assert done.stderr.endswith("; call as a user of the group that the bus policy names\n")


@pytest.mark.parametrize(
    "arguments, said",
    [
        ((), "A subcommand is required; see billingctl --help"),
        (("buy",), 'there is no command "buy"; see billingctl --help'),
        *(
            ((typed,), f'there is no command "{typed}", did you mean "{meant}"; see billingctl --help')
            for typed, meant in (
                ("docter", "doctor"),
                ("monitr", "monitor"),
                ("get_product", "get-product-list"),
                ("confirm-purchas", "confirm-purchase"),
            )
        ),
        (("docter", "--help"), 'there is no command "docter", did you mean "doctor"; see billingctl --help'),
        (("get-product-list",), "--appid is required; see billingctl get-product-list --help"),
        (("confirm-purchase", "--appid", "a"), "--invoiceid is required; see billingctl confirm-purchase --help"),
        *(
            (
                ("--timeout", time, "doctor"),
                f'--timeout: "{time}" is no number of seconds from 0.1 to 86400; see billingctl doctor --help',
            )
            for time in ("0", "-1", "nan", "86401", "soon")
        ),
    ],
)
def test_wrong_arguments_are_named_in_one_line(ctl, arguments, said):
    done = ctl(*arguments)
    assert (done.returncode, done.stdout) == (USAGE, "")
    assert done.stderr == f"billingctl: {said}\n"
    cause, cure = said.split("; ")

    done = ctl("--json", *arguments)
    assert (done.returncode, done.stderr) == (USAGE, "")
    assert json.loads(done.stdout) == {"error": {"cause": cause, "cure": cure}}


def test_an_argument_that_the_bus_cannot_carry_is_named(ctl):
    done = ctl("get-product-list", "--appid", b"\xff")
    assert (done.returncode, done.stdout) == (USAGE, "")
    assert done.stderr == (
        "billingctl: --appid: is not UTF-8, which the bus asks for; see billingctl get-product-list --help\n"
    )


@pytest.mark.parametrize(
    "arguments", [("--version",), ("--help",), ("doctor",), ("--json", "buy"), ("--json", "check-server-availability")]
)
def test_output_that_is_lost_is_a_failure(bus, arguments):
    with open("/dev/full", "w", encoding="utf-8") as full:
        done = subprocess.run(
            [billingctl.program(), *arguments],
            stdout=full,
            check=False,
            text=True,
            stderr=subprocess.PIPE,
            env=billingctl.environment(bus),
            timeout=60,
        )
    assert done.returncode == FAILED
    assert done.stderr in [
        f"billingctl: the output cannot be written: {why}; make room, or send it elsewhere\n"
        for why in ("No space left on device", "a part of it is lost")
    ]


@pytest.mark.parametrize("command", ["", "doctor", "get-product-list"])
def test_help_is_a_command_too(ctl, command):
    words = [command] if command else []
    asked, option = ctl("help", *words), ctl(*words, "--help")
    assert (asked.returncode, asked.stderr) == (DONE, "")
    assert asked.stdout == option.stdout


def test_help_for_a_command_that_is_not_there_is_wrong(ctl):
    done = ctl("help", "docter")
    assert (done.returncode, done.stdout) == (USAGE, "")
    assert done.stderr == 'billingctl: there is no command "docter", did you mean "doctor"; see billingctl --help\n'


def test_the_version_names_the_libraries(ctl):
    done = ctl("--version")
    assert done.returncode == DONE
    assert [line.split(" ")[0] for line in done.stdout.splitlines()] == ["billingctl", "GLib", "libcurl", "OpenSSL", "jsoncpp"]


# --- completion and manual ---


def spellings_in_help(ctl, *arguments):
    """The options in a help text, each with all its spellings."""
    return [
        [spelling for spelling in word.split(",") if spelling.startswith("--")]
        for word in ctl(*arguments, "--help").stdout.split()
        if re.match("(-o,)?--", word)
    ]


COMMANDS = [*(method.replace("_", "-") for method in EVERY_CALL), "doctor", "status", "report", "settings", "monitor", "help"]


def test_the_manual_names_every_command_and_every_spelling_of_its_options(ctl):
    manual = (daemon.TREE / "data" / "man" / "billingctl.1").read_text().replace("\\-", "-")
    wanted = {
        *COMMANDS,
        *(
            option
            for command in ((), *((name,) for name in COMMANDS))
            for spellings in spellings_in_help(ctl, *command)
            for option in spellings
        ),
    }
    assert {"--appid", "--serverType", "--timeout", "--sign"} < wanted
    assert {word for word in wanted if not re.search(rf"{word}\b", manual)} == set()


def completions(*words):
    """Completions that bash offers for the last of these words."""
    script = (
        f'. {daemon.TREE / "data" / "completions" / "billingctl"}; COMP_WORDS=("$@"); '
        'COMP_CWORD=$(($# - 1)); _billingctl; printf "%s\\n" "${COMPREPLY[@]}"'
    )
    done = subprocess.run(["bash", "-c", script, "bash", "billingctl", *words], capture_output=True, text=True, check=True)
    return done.stdout.split()


@pytest.mark.parametrize("command", [command for command in COMMANDS if command != "help"])
def test_completion_offers_every_option_of_a_command(ctl, command):
    own = {spellings[0] for spellings in spellings_in_help(ctl, command)}
    general = {spellings[0] for spellings in spellings_in_help(ctl)} - {"--version"}
    assert set(completions(command, "--")) == own | general | {"--help"}


def test_completion_offers_the_commands_and_no_values():
    assert {word for word in completions("") if not word.startswith("--")} == set(COMMANDS)
    assert completions("--json", "get-p") == ["get-product-list", "get-purchase-history"]
    assert completions("doctor", "--s") == ["--sign"]
    assert completions("help", "mo") == ["monitor"]
    assert completions("doctor", "--output", "") == ["people", "terse", "json"]
    assert completions("get-product-list", "--appid", "") == []
