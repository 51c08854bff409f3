"""The device's settings: a change takes effect at the next call, and each fault gives one clear log line."""
import os

import pytest
from harness.device import certificates
from harness.device.device import DUID, GUID, TOKEN, UID
from harness.methods import NO_NETWORK, TRY_LATER, all_alike, answers

CA_FILE = "/opt/down/cert/ca.pem"


def host_asked(caller, store):
    """The host of the next request, without its port."""
    store.take_requests()
    assert caller.call("check_server_availability") == (0, "{}")
    (request,) = store.take_requests()
    return request.headers[0].split(": ")[1].split(":")[0]


@pytest.mark.parametrize(
    "kind, host",
    [("0", "production"), ("1", "sandbox"), ("2", "sandbox"), ("3", "production"), ("-1", "production"), (None, "sandbox")],
)
def test_the_server_type_chooses_the_host(service, caller, store, a_device, kind, host):
    a_device.set("system", "vantor_server_type", kind)
    assert host_asked(caller, store) == f"{host}.localhost"


def test_a_server_type_changed_between_two_calls_changes_the_host(service, caller, store, a_device):
    assert host_asked(caller, store) == "production.localhost"
    a_device.set("system", "vantor_server_type", "1")
    assert host_asked(caller, store) == "sandbox.localhost"
    a_device.set("system", "vantor_server_type", "0")
    assert host_asked(caller, store) == "production.localhost"


def test_the_callers_server_type_plays_no_part(service, caller, store):
    for kind in ("0", "1", "2"):
        caller.call("get_product_list", "a", kind, "c")
    assert {request.headers[0] for request in store.requests} == {f"Host: production.localhost:{store.port}"}


@pytest.mark.parametrize(
    "group, key, old",
    [
        ("config", "db/comss/atoken", TOKEN),
        ("config", "db/comss/hwduid", DUID),
        ("config", "db/comss/countrycode", "DE"),
        ("account", "guid", GUID),
        ("account", "login_id", UID),
    ],
)
def test_a_changed_value_is_in_the_next_request(service, caller, store, a_device, group, key, old):
    caller.call("confirm_purchase", "a", "c", "i", "0")
    # The new value has the same length, so the file's size does not show the change.
    new = "".join(chr(ord(c) + 1) for c in old)
    a_device.set(group, key, new)

    caller.call("confirm_purchase", "a", "c", "i", "0")

    before, after = (request.raw.decode() for request in store.requests)
    assert old in before and new not in before
    assert new in after and old not in after


@pytest.mark.parametrize("language, sent", [("en_US.utf8", "en"), ("fr_CA.utf8", "fr-US"), ("de_AT.utf8", "en"), (None, "ko")])
def test_the_language_is_sent_as_the_store_names_it(service, caller, store, a_device, language, sent):
    a_device.set("runtime", "language", language)
    caller.call("check_server_availability")
    assert f"&lang={sent}&" in store.requests[0].line


def complaints(process):
    return [record for record in process.log() if record.priority == "E" and record.tag == "BILLING_PLATFORM"]


# Content of the file, and texts that the log line about it must contain.
FAULTS = {
    "no file": (None, ["cannot be read", "No such file", "PLEVO_DEVICE_CONF"]),
    "no settings file": ("{\n  'json': 1\n}\n", ["line 1"]),
    "a key without a group": ("atoken=1\n[config]\n", ["line 1"]),
    "binary data": (bytes(range(256)), ["line 1"]),
    "a megabyte": ("[config]\ndb/comss/atoken=" + "x" * (1 << 20), ["larger than 64 KiB"]),
    "an unknown key": ("[network]\ndefault_gatewai=up\ndefault_gateway=down\n", ["line 2", "not a known setting"]),
    "an unknown group": ("[netwrok]\n[network]\ndefault_gateway=down\n", ["line 1", "not a known group"]),
    "an unknown gateway rule": (
        "[network]\ndefault_gateway=sideways\n",
        ["[network] default_gateway", "none of auto, up, down"],
    ),
    "a type that is no number": (
        "[system]\nvantor_server_type=two\n[network]\ndefault_gateway=down\n",
        ["[system] vantor_server_type", "not a whole number"],
    ),
    "a host with a scheme": (
        "[deployment]\nproduction_host=https://x/\n[network]\ndefault_gateway=up\n[system]\nvantor_server_type=0\n",
        ["[deployment] production_host", "not a bare host name"],
    ),
    "no host": ("[network]\ndefault_gateway=up\n", ["[deployment] sandbox_host", "is not set"]),
}


@pytest.mark.parametrize("mode", [0o604, 0o602, 0o666])
def test_settings_that_others_can_read_or_write_are_complained_of(service, caller, a_device, mode):
    caller.call("check_server_availability")
    assert complaints(service) == []
    a_device.file.chmod(mode)
    for _ in range(2):
        caller.call("check_server_availability")
    (line,) = complaints(service)
    assert f"{a_device.file}: is open to others" in line.text and line.text.endswith("; chmod o= it")


# Second lines that result when an editor wraps a long value.
WRAPPED = ["{}", "{}==", "{}=", "{}=x", "[{}", "[{}]", "{}[de]=x", "#{}", "{}: x", " {}"]
# Private settings: they identify a person or a device, or grant access. Country, language and paths are logged.
PRIVATE = [
    ("config", "db/comss/atoken"),
    ("config", "db/comss/hwduid"),
    ("config", "db/comss/modelid"),
    ("account", "guid"),
    ("account", "auth_token"),
    ("account", "login_id"),
]


@pytest.mark.parametrize("group, key", PRIVATE)
def test_no_part_of_a_private_value_is_logged_however_it_is_wrapped(service, caller, a_device, group, key):
    canaries = []
    for at, form in enumerate(["", *WRAPPED]):
        first, second = f"CANARY-{at}-HEAD", f"CANARY-{at}-TAIL" if form else ""
        canaries += [first, second] if form else [first]
        a_device.set(group, key, first + ("\n" + form.format(second) if form else ""))
        answers(caller)
    assert complaints(service)
    log = service.log_text()
    assert [canary for canary in canaries if canary in log] == []


@pytest.mark.parametrize("fault", FAULTS)
def test_a_fault_in_the_file_gives_one_clear_line(service, caller, store, a_device, fault):
    text, named = FAULTS[fault]
    if text is None:
        os.remove(a_device.file)
    else:
        a_device.write_file(text)

    for _ in range(2):
        # Without the setting the kernel is asked for a gateway, and the machine may have one or not.
        assert caller.call("check_server_availability") in (NO_NETWORK, TRY_LATER)

    (line,) = complaints(service)
    assert str(a_device.file) in line.text
    assert all(part in line.text for part in named)
    assert store.connections == []


def test_without_a_host_every_method_is_refused_and_nothing_is_asked(service, caller, store, a_device):
    a_device.set("deployment", "production_host", None)

    assert answers(caller) == all_alike(TRY_LATER)

    assert store.connections == []
    assert service.texts("E").count("Set MZCurl::URL error = [The URL names no host]") == 5


def test_a_file_that_was_mended_is_used_without_a_restart(service, caller, store, a_device):
    os.remove(a_device.file)
    assert caller.call("check_server_availability")[0] != 0
    a_device.write()
    assert caller.call("check_server_availability") == (0, "{}")


def test_a_daemon_that_starts_without_a_file_has_no_key_until_it_starts_again(
    needs_view, start_daemon, caller, store, a_device
):
    os.remove(a_device.file)
    first = start_daemon()
    first.wait_for_name(caller)
    assert caller.call("check_server_availability") in (NO_NETWORK, TRY_LATER)

    a_device.write()
    assert caller.call("check_server_availability") == (-1, ""), "the store demands a certificate"
    first.stop()

    start_daemon().wait_for_name(caller)
    assert caller.call("check_server_availability") == (0, "{}")


BROKEN_CA = {
    "missing": lambda path: path.unlink(),
    "empty": lambda path: path.write_bytes(b""),
    "no certificate": lambda path: path.write_bytes(b"no certificate in here\n"),
    "unreadable": lambda path: path.chmod(0),
    "a folder": lambda path: (path.unlink(), path.mkdir()),
    "a pipe": lambda path: (path.unlink(), os.mkfifo(path)),
}


@pytest.mark.parametrize("broken", BROKEN_CA)
def test_a_ca_file_that_is_of_no_use_fails_the_transfer_with_one_line(service, caller, store, a_device, broken):
    BROKEN_CA[broken](a_device.ca_file)

    assert caller.call("get_product_list", "a", "", "c") == (-1, "")

    (line,) = [text for text in service.texts("E") if CA_FILE in text]
    assert line.startswith("MZCurl multiResult ErrorCode = 77;  ErrMsg = ")
    assert b"".join(store.connections) == b""


def test_a_ca_file_that_was_mended_is_used_without_a_restart(service, caller, store, a_device):
    whole = a_device.ca_file.read_bytes()
    a_device.ca_file.write_bytes(b"")
    assert caller.call("check_server_availability") == (-1, "")
    a_device.ca_file.write_bytes(whole)
    assert caller.call("check_server_availability") == (0, "{}")


def test_the_machines_own_certificates_are_not_trusted(service, caller, store, a_device, start_daemon):
    # The bundle that the environment names vouches for the server; the configured bundle does not.
    bundle = a_device.ca_file.with_name("other.pem")
    bundle.write_bytes(a_device.ca_file.read_bytes())
    a_device.ca_file.write_bytes(certificates.Authority().pem)
    service.stop()
    process = start_daemon(
        environment={
            "SSL_CERT_FILE": "/opt/down/cert/other.pem",
            "CURL_CA_BUNDLE": "/opt/down/cert/other.pem",
            "SSL_CERT_DIR": "/opt/down/cert",
        }
    )
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == (-1, "")
    assert b"".join(store.connections) == b""
