"""billingctl doctor beside the real daemon: each check when it fails, with cause and cure, and when it passes."""
import datetime
import json
import os
import re
import subprocess

import pytest
from harness.device import certificates, credentials
from harness.tools import billingctl
from harness.tools.billingctl import FAILED
from harness.tools.doctor import outcomes, preloaded

CERTIFICATE = "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt"
BUNDLE = "/opt/down/cert/ca.pem"
PUT_CERTIFICATE = "put it there with billing-provision install CERTIFICATE"
PUT_BUNDLE = "put the certificates of the authorities that vouch for the store there, as PEM"
OPEN = "let the service read it: chmod a+r {}, and chmod a+x on the folders above"
MEND = "mend the file; it is read again at the next call (billingctl settings check FILE tries one beforehand)"
PUT_SETTINGS = (
    "put the device's settings there (device.conf(5)), or name another file with PLEVO_DEVICE_CONF in the unit's drop-in"
)
PIN_FILE = "see [keystore] pin_file in {conf}: the PIN alone on one line, chmod 600, owned by the service's user"
THEN_RESTART = "set [deployment] {} in {{conf}}, then restart the service (systemctl restart billing-service)"
REFUSED = "until then every call is answered with 1160003"
NOT_REACHED = "the request did not come that far"
# Findings on a bus without a service manager.
NO_MANAGER = {"unit": "there is no systemd on this bus"}


def of_device(text, device):
    """Fills the paths of the test's device into a text."""
    return text.format(
        conf=device.file,
        lab=device.credentials.folder,
        port=device.settings["deployment"].get("production_host", ":").split(":")[-1],
        module=device.settings["keystore"].get("module"),
    )


# --- a device that works ---


def test_nothing_fails_on_a_device_that_works(service, doctor):
    found, failed = doctor("--sign")
    assert failed == []
    assert outcomes(found, "not checked") == {*NO_MANAGER, "HTTP", "time"}
    assert outcomes(found, "warning") == set()
    today = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
    for check, finding in {
        "settings": r"/.*/device\.conf is well-formed",
        "certificate": r'"Billing lab device", RSA with 2048 bits, valid from [-0-9]{10} to ' r"[-0-9]{10}",
        "CA bundle": "1 certificate",
        "clock": rf"{today[:7]}-\d\d \d\d:\d\d UTC",
        "key material": "no sealed key is left on the device",
        "token": '"billing-lab" is there',
        "key": "one signature, and the certificate confirms it",
        "route": r"\[network\] default_gateway says up; the kernel is not asked",
        "name lookup": r"production\.localhost is known",
        "TCP": r"connected to 127\.0\.0\.1",
        "TLS": r"the CA bundle vouches for production\.localhost",
        "HTTP": "the store demands the device's certificate, which only the service presents: see the call below",
        "request": r'the store answered the device with HTTP status 200: "\{\}"',
        "ping": r"the service lives: it answered in \d+\.\d ms",
        "restart": "the service has started after its certificate was put there",
        "bus": "the system bus is reachable",
        # Only a process with root's rights may see the program that owns the name. No process in this view has them.
        "name": r"org\.plevo\.billingservice is owned by a program that cannot be seen from here "
        rf"\(process {service.pid}, user \S+\)",
        "call": r"check_server_availability came back with resp_result 0 in \d+\.\d ms",
    }.items():
        assert re.fullmatch(finding, found[check]["finding"]), check


def test_the_key_is_used_only_when_asked_for(service, doctor):
    found, failed = doctor()
    assert failed == []
    assert found["key"] == {
        "check": "key",
        "id": "key.not-checked",
        "outcome": "not checked",
        "finding": "--sign signs once with it; a wrong PIN counts as a try",
    }
    assert found["request"]["outcome"] == "not checked"


def test_the_kernel_is_asked_for_the_route(service, doctor, a_device):
    a_device.set("network", "default_gateway", None)
    there = (
        subprocess.run("ip route show default; ip -6 route show default", shell=True, check=True, capture_output=True).stdout
        != b""
    )
    found, failed = doctor()
    assert ("route" in failed) == (not there)
    assert found["route"]["finding"] == ("there is a default route" if there else "there is no default route")


def test_the_owner_is_named_with_its_program_where_it_can_be_seen(service, bus):
    done = billingctl.run(bus, "doctor", "--json")
    found = {check["check"]: check for check in json.loads(done.stdout)["checks"]}
    try:
        program = os.readlink(f"/proc/{service.pid}/exe")
    except PermissionError:
        program = "a program that cannot be seen from here"
    assert f" is owned by {program} (process {service.pid}, user " in found["name"]["finding"]


# --- what is broken on the device ---


def no_settings(device):
    device.write_file("[network\n")


def lost_settings(device):
    device.file.unlink()


def no_certificate(device):
    device.credentials.certificate.unlink()


def certificate_of_garbage(device):
    device.credentials.certificate.write_text("nothing\n")


def broken_certificate(device):
    text = device.credentials.certificate.read_text()
    device.credentials.certificate.write_text(text.replace("MII", "MIJ", 1))


def certificate_for_root(device):
    device.credentials.certificate.chmod(0)


def certificate_of_a_short_key(device):
    own_certificate(device, "rsa:1024")


def own_certificate(device, kind="rsa:2048"):
    subprocess.run(
        [
            "openssl",
            "req",
            "-x509",
            "-newkey",
            kind,
            "-nodes",
            "-subj",
            "/CN=other",
            "-keyout",
            device.credentials.folder / "other.key",
            "-out",
            device.credentials.certificate,
        ],
        check=True,
        capture_output=True,
    )


def no_bundle(device):
    device.ca_file.unlink()


def bundle_for_root(device):
    device.ca_file.chmod(0)


def bundle_without_an_end(device):
    device.ca_file.unlink()
    os.mkfifo(device.ca_file)


def empty_bundle(device):
    device.ca_file.write_text("")


def broken_bundle(device):
    text = device.ca_file.read_text()
    device.ca_file.write_text(text + text.replace("MII", "MIJ", 1))


def sealed_key_left(device):
    material = device.credentials.folder / "material"
    material.touch()
    device.set("deployment", "key_material", str(material))


def another_token(device):
    device.set("keystore", "token", "other")


def no_module(device):
    device.set("keystore", "module", "/nowhere.so")


def module_not_set(device):
    device.set("keystore", "module", None)


def another_pin(device):
    (device.credentials.folder / "pin").write_text("wrong")


def open_pin(device):
    (device.credentials.folder / "pin").chmod(0o644)


def another_key(device):
    device.set("deployment", "key_id", "77")


def no_key(device):
    device.set("deployment", "key_id", None)


def no_credential(device):
    device.set("deployment", "credential", None)


def refused_key(device):
    device.set("deployment", "key_id", "first")


def no_route(device):
    device.set("network", "default_gateway", "down")


def broken_route(device):
    device.set("network", "default_gateway", "error:5")


def refused_route(device):
    device.set("network", "default_gateway", "perhaps")


def no_host(device):
    device.set("deployment", "production_host", None)


def refused_host(device):
    device.set("deployment", "production_host", "https://store.example/")


def unknown_host(device):
    device.set("deployment", "production_host", "store.invalid")


def no_server(device):
    device.set("deployment", "production_host", "localhost:1")


BY_KEY_STORE = 'key store: token "billing-lab" of {module}: '


@pytest.mark.parametrize(
    "break_it, check, cause, cure",
    [
        (
            no_settings,
            "settings",
            "{conf}: line 1 is not a [group], a key=value or a # comment; no setting is read until it is mended",
            MEND,
        ),
        (lost_settings, "settings", "{conf}: No such file or directory", PUT_SETTINGS),
        (no_certificate, "certificate", CERTIFICATE + ": No such file or directory", PUT_CERTIFICATE),
        (certificate_of_garbage, "certificate", CERTIFICATE + " holds no PEM certificate", PUT_CERTIFICATE),
        (broken_certificate, "certificate", CERTIFICATE + " holds no PEM certificate", PUT_CERTIFICATE),
        (certificate_for_root, "certificate", CERTIFICATE + ": Permission denied", OPEN.format(CERTIFICATE)),
        (
            certificate_of_a_short_key,
            "certificate",
            CERTIFICATE + " is for an RSA key with 1024 bits and not for an RSA key with 2048 bits",
            "have one made for the device's key (billing-provision request)",
        ),
        (no_bundle, "CA bundle", BUNDLE + ": No such file or directory", PUT_BUNDLE),
        (bundle_for_root, "CA bundle", BUNDLE + ": Permission denied", OPEN.format(BUNDLE)),
        (bundle_without_an_end, "CA bundle", BUNDLE + ": a pipe, a socket or a device, and no file", PUT_BUNDLE),
        (empty_bundle, "CA bundle", BUNDLE + " holds no PEM certificate", PUT_BUNDLE),
        (
            broken_bundle,
            "CA bundle",
            f"certificate 2 of {BUNDLE} is broken",
            "put a whole bundle there: with a broken one nothing is trusted",
        ),
        (
            sealed_key_left,
            "key material",
            "{lab}/material is still there: with [keystore] seal_key it gives the key",
            "billing-provision import CERTIFICATE puts the key into the token and removes both files",
        ),
        (
            another_token,
            "token",
            'there is no token "other" in {module}, which has "billing-lab"',
            "set [keystore] token in {conf} to its label",
        ),
        (
            no_module,
            "token",
            "/nowhere.so: cannot open shared object file: No such file or directory; [keystore] module must "
            "be the absolute path of a PKCS#11 module",
            "see [keystore] in {conf}, and billing-provision(8)",
        ),
        (module_not_set, "token", "[keystore] module is not set", "see [keystore] in {conf}, and billing-provision(8)"),
        (open_pin, "key", BY_KEY_STORE + "{lab}/pin is open to others; it is used after chmod 600 {lab}/pin", PIN_FILE),
        (no_key, "key", "[deployment] key_id is not set", THEN_RESTART.format("key_id")),
        (no_credential, "key", "[deployment] credential is not set", THEN_RESTART.format("credential")),
        (
            own_certificate,
            "key",
            "the token's key is not the certificate's",
            "install the certificate that was made for it, or set [deployment] key_id",
        ),
        (no_route, "route", "[network] default_gateway says down", "set it to auto; " + REFUSED),
        (broken_route, "route", "[network] default_gateway says error:5", "set it to auto; " + REFUSED),
        (no_host, "name lookup", "[deployment] production_host is not set", "set it to the store's host in {conf}"),
        (
            unknown_host,
            "name lookup",
            "Could not resolve host: store.invalid",
            "look at the device's name servers, and at [deployment] production_host",
        ),
    ],
)
def test_what_is_broken_is_the_first_check_that_fails(service, doctor, a_device, break_it, check, cause, cure):
    break_it(a_device)
    found, failed = doctor("--sign")
    assert failed[0] == check
    assert found[check]["finding"] == of_device(cause, a_device)
    assert found[check]["cure"] == of_device(cure, a_device)


@pytest.mark.parametrize(
    "break_it, check, cause",
    [
        (another_pin, "key", "CKR_PIN_INCORRECT"),
        (another_key, "key", "there is no private key with "),
        (no_server, "TCP", "Failed to connect to localhost port 1 "),
    ],
)
def test_what_is_broken_is_said_in_the_words_of_who_noticed(service, doctor, a_device, break_it, check, cause):
    break_it(a_device)
    found, failed = doctor("--sign")
    assert failed[0] == check
    assert cause in found[check]["finding"]
    assert found[check]["cure"] == of_device(
        {
            another_pin: PIN_FILE,
            another_key: "set [deployment] key_id to the id of the device's key, or make one with billing-provision request",
            no_server: "is the store up, does a firewall stand between, is the port in [deployment] production_host right",
        }[break_it],
        a_device,
    )


@pytest.mark.parametrize(
    "break_it, check, key",
    [
        (refused_key, "key", "[deployment] key_id"),
        (refused_route, "route", "[network] default_gateway"),
        (refused_host, "name lookup", "[deployment] production_host"),
    ],
)
def test_a_setting_that_is_refused_is_not_called_missing(service, doctor, a_device, break_it, check, key):
    break_it(a_device)
    found, failed = doctor("--sign")
    assert failed[:2] == ["settings", check]
    assert f": {key} is no" in found["settings"]["finding"]
    assert found[check]["finding"] == f"{key} holds what it may not, see settings above"


def test_what_was_not_reached_was_not_checked(service, doctor, a_device):
    unknown_host(a_device)
    another_token(a_device)
    found, _ = doctor("--sign")
    assert {check: found[check]["finding"] for check in outcomes(found, "not checked")} == {
        **NO_MANAGER,
        "key": "there is no token to sign with",
        "TCP": NOT_REACHED,
        "TLS": NOT_REACHED,
        "HTTP": NOT_REACHED,
        "time": NOT_REACHED,
        "request": "what failed above comes first",
    }


def test_no_secret_is_shown(service, doctor, a_device):
    secrets = [value for group in ("config", "account") for value in a_device.settings[group].values() if len(value) > 3]
    pin = (a_device.credentials.folder / "pin").read_text().strip()
    another_pin(a_device)
    a_device.set("account", "guid", "guid\x01")
    text = str(doctor("--sign"))
    assert len(secrets) > 3
    assert [secret for secret in [*secrets, pin, "wrong"] if secret in text] == []


# --- the clock ---


def test_a_clock_before_the_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(credentials.A_DAY, 2 * credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "clock"
    assert re.fullmatch(
        r"the clock says [-0-9]{10} \d\d:\d\d UTC, before the device's certificate is valid", found["clock"]["finding"]
    )


def test_a_clock_of_1970_is_the_cause(service, doctor):
    found, failed = doctor(**preloaded("clock-1970"))
    assert failed == ["clock", "TLS"]
    assert found["clock"]["finding"] == ("the clock says 1970-01-01 00:01 UTC, before the device's certificate is valid")
    assert found["clock"]["cure"] == "set the clock: certificates are not valid yet for it"
    assert re.fullmatch(
        r'the certificate ".+" is not valid yet: valid from [-0-9]{10} to [-0-9]{10}, '
        "and the clock says 1970-01-01 00:01 UTC",
        found["TLS"]["finding"],
    )
    assert found["TLS"]["cure"] == ("set the clock; if it is right, the store uses its certificate too early")


def test_an_expired_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(-2 * credentials.A_DAY, -credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "certificate"
    assert re.fullmatch(CERTIFICATE + " has expired: valid from [-0-9]{10} to [-0-9]{10}", found["certificate"]["finding"])
    assert found["certificate"]["cure"] == (
        "have a new one made (billing-provision request --existing); if the clock is wrong, set it"
    )


@pytest.fixture
def old_certificate(a_device):
    return a_device.credentials.certify(validity=certificates.EXPIRED)


def test_expired_authorities_are_named(service, doctor, a_device, old_certificate):
    good = a_device.ca_file.read_bytes()
    a_device.ca_file.write_bytes(good + old_certificate)
    found, failed = doctor()
    assert failed == []
    assert found["CA bundle"]["finding"] == "2 certificates, 1 expired"

    a_device.ca_file.write_bytes(old_certificate)
    found, failed = doctor()
    assert failed[0] == "CA bundle"
    assert found["CA bundle"]["finding"] == f"every certificate of {BUNDLE} has expired"
    assert found["CA bundle"]["cure"] == "put a newer bundle there; if the clock is wrong, set it"


# --- the bus ---


def test_a_bus_that_is_not_there_is_found_out(doctor):
    found, failed = doctor(DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere")
    assert failed == ["bus"]
    assert found["bus"]["finding"] == ("the system bus cannot be reached: Could not connect: No such file or directory")
    assert found["bus"]["cure"] == ("start the message bus, or name another one with --bus or DBUS_SYSTEM_BUS_ADDRESS")
    assert [found[check]["outcome"] for check in ("name", "call")] == ["not checked"] * 2


def test_a_refused_call_is_said_in_the_service_s_words(service, doctor, a_device):
    no_route(a_device)
    found, failed = doctor()
    assert failed == ["route", "call"]
    assert re.fullmatch(
        r"check_server_availability came back with resp_result 1160003 in \d+\.\d ms: Network error, please check!",
        found["call"]["finding"],
    )
    assert found["call"]["cure"] == ("mend what failed above or below; if nothing did, the service's log says more")


# --- output for people ---


def test_the_doctor_speaks_to_people_too(bus, tmp_path):
    done = billingctl.run(bus, "doctor", PLEVO_DEVICE_CONF=str(tmp_path / "none"))
    assert done.returncode == FAILED
    lines = done.stdout.splitlines()
    assert lines[0].startswith("not checked  identity     ")
    assert lines[1].startswith(f"failed       settings     {tmp_path}/none: ")
    assert lines[2] == f"{'':26}cure: {PUT_SETTINGS}"
    assert f"not checked  HTTP         {NOT_REACHED}" in lines
    assert "ok           bus          the system bus is reachable" in lines
    assert lines[-1].endswith(" of 22 checks failed")
