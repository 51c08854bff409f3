"""billingctl settings check, and the doctor's findings on the same file."""
import json

import pytest
from harness import daemon
from harness.tools import billingctl
from harness.tools.billingctl import DONE, FAILED, WARNING

GOOD = """\
# a device
[config]
db/comss/atoken=secret-token
[system]
vantor_server_type=0
[network]
default_gateway=up

[deployment]
production_host=store.example
credential=1 2 3 4 5
key_id=7
[keystore]
module=/usr/lib/softhsm/libsofthsm2.so
token=device
pin_file=/etc/plevo/pin
"""


@pytest.fixture
def check(bus, tmp_path):
    """A function that checks a file with these bytes.
    @return exit code and mistakes
    """

    def checked(content):
        file = tmp_path / "settings"
        file.write_bytes(content if isinstance(content, bytes) else content.encode())
        done = billingctl.run(bus, "settings", "check", str(file))
        assert done.stderr == ""
        assert "secret-token" not in done.stdout
        told = json.loads(billingctl.run(bus, "--json", "settings", "check", str(file)).stdout)
        assert told["file"] == str(file)
        lines = [line.removeprefix(f"{file}: ") for line in done.stdout.splitlines()]
        assert len(lines) == max(1, len(told["mistakes"]))
        return done.returncode, lines, [(one["line"], one["id"], one["outcome"]) for one in told["mistakes"]]

    return checked


def test_a_good_file_is_called_good(check, tmp_path):
    code, lines, mistakes = check(GOOD)
    assert (code, mistakes) == (DONE, [])
    assert lines == [f"{tmp_path / 'settings'} is well-formed and has what the service needs"]


def test_line_ends_of_windows_and_blanks_are_no_mistakes(check):
    assert check(GOOD.replace("\n", "\r\n").replace("key_id=7", "  key_id = 7 "))[0] == DONE


def test_all_mistakes_are_shown_at_once_with_their_lines(check):
    code, lines, mistakes = check(
        GOOD.replace("key_id=7", "key_id=first\nkeyid=7\nnonsense")
        .replace("[system]", "[sistem]")
        .replace("default_gateway=up", "default_gateway=perhaps")
    )
    assert code == FAILED
    assert mistakes == [
        (4, "settings.unknown", "failed"),
        (7, "settings.value", "failed"),
        (12, "settings.value", "failed"),
        (13, "settings.unknown", "failed"),
        (14, "settings.syntax", "failed"),
    ]
    assert lines == [
        "line 4: [sistem] is not a known group and is ignored",
        "line 7: [network] default_gateway is none of auto, up, down and error:<code>; it counts as not set "
        "until it is mended",
        "line 12: [deployment] key_id is not a whole number of 32 bits other than 0; it counts as not set until "
        "it is mended",
        "line 13: [deployment] keyid is not a known setting and is ignored",
        "line 14 is not a [group], a key=value or a # comment; no setting is read until it is mended",
    ]


def test_a_key_before_the_first_group_is_named(check):
    _, lines, mistakes = check("key=1\n" + GOOD)
    assert mistakes == [(1, "settings.syntax", "failed")]
    assert lines == ["line 1: a key=value stands before the first [group]; no setting is read until it is mended"]


def test_a_double_is_named_and_harmless(check):
    code, lines, mistakes = check(GOOD + "token=other\n")
    assert (code, mistakes) == (WARNING, [(17, "settings.double", "warning")])
    assert lines == ["line 17: [keystore] token stands here once more, first on line 15; the last one counts"]


@pytest.mark.parametrize(
    "content, line, said",
    [
        (b"\xef\xbb\xbf" + GOOD.encode(), 1, "byte order mark (EF BB BF)"),
        (GOOD.encode("utf-16"), 0, "is UTF-16"),
        (GOOD.encode("utf-16-le"), 0, "is UTF-16"),
        (GOOD.encode("utf-16-be"), 0, "is UTF-16"),
    ],
)
def test_another_encoding_is_named(check, content, line, said):
    code, lines, mistakes = check(content)
    assert (code, mistakes) == (FAILED, [(line, "settings.encoding", "failed")])
    assert said in lines[0]


def test_what_the_service_needs_is_asked_for(check):
    _, lines, mistakes = check("[system]\nvantor_server_type=1\n")
    assert {mistake[1] for mistake in mistakes} == {"settings.not-set"}
    assert lines == [
        f"{name} is not set"
        for name in (
            "[deployment] sandbox_host",
            "[deployment] credential",
            "[deployment] key_id",
            "[keystore] module",
            "[keystore] token",
            "[keystore] pin_file",
        )
    ]


def test_a_file_that_does_not_choose_the_server_is_a_warning(check):
    complete = GOOD + "[deployment]\nsandbox_host=sandbox.example\n"
    code, lines, mistakes = check(complete.replace("vantor_server_type=0\n", ""))
    assert (code, mistakes) == (WARNING, [(0, "settings.not-set", "warning")])
    assert lines == ["[system] vantor_server_type is not set: the sandbox is used"]


def test_the_sample_has_what_the_service_needs(check, tmp_path):
    code, lines, _ = check((daemon.TREE / "data" / "device.conf.example").read_bytes())
    assert (code, lines) == (DONE, [f"{tmp_path / 'settings'} is well-formed and has what the service needs"])


def test_a_file_that_is_not_there_is_named(bus):
    done = billingctl.run(bus, "settings", "check", "/nowhere")
    assert (done.returncode, done.stdout.split(":")[:2]) == (FAILED, ["/nowhere", " cannot be read"])


def test_the_doctor_shows_all_of_them_in_one_line(service, doctor, a_device):
    a_device.set("network", "default_gateway", "perhaps")
    a_device.set("deployment", "key_id", "first")
    found, failed = doctor()
    assert failed[0] == "settings"
    assert found["settings"]["id"] == "settings.value"
    assert found["settings"]["finding"].count("; line ") == 1


def test_the_doctor_names_an_open_file_with_its_mode(service, doctor, a_device):
    a_device.file.chmod(0o644)
    found, failed = doctor()
    assert failed == []
    assert found["settings"]["id"] == "settings.open"
    assert "(mode 644, of " in found["settings"]["finding"]
    assert found["settings"]["cure"] == f"chmod 640 {a_device.file}"


def test_the_doctor_warns_of_a_server_that_is_not_chosen(service, doctor, a_device):
    # The store of the test stands at the place of the sandbox, so that nothing else is wrong.
    a_device.set("deployment", "sandbox_host", a_device.settings["deployment"]["production_host"])
    a_device.set("system", "vantor_server_type", None)
    found, failed = doctor()
    assert failed == []
    assert {key: found["settings"][key] for key in ("id", "outcome", "finding", "cure")} == {
        "id": "settings.not-set",
        "outcome": "warning",
        "finding": f"{a_device.file}: [system] vantor_server_type is not set: the sandbox is used",
        "cure": "set [system] vantor_server_type: 0 for production, 1 for the sandbox",
    }


def test_the_doctor_names_the_encoding(service, doctor, a_device):
    a_device.write_file(b"\xef\xbb\xbf" + a_device.file.read_bytes())
    found, failed = doctor()
    assert failed[0] == "settings"
    assert found["settings"]["id"] == "settings.encoding"
