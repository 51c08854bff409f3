"""billingctl doctor where the real daemon runs: each check, failing and passing."""
import json
import subprocess

import pytest
from harness import billingctl, certificates, credentials, daemon
from harness.billingctl import DONE, FAILED

CHECKS = ["settings", "certificate", "CA bundle", "clock", "token", "key", "route", "name lookup",
          "TCP", "TLS", "HTTP", "bus", "name", "call"]


@pytest.fixture
def doctor(needs_view, bus, a_device):
    """A function that runs the doctor where the daemon is, and gives its findings by check."""
    def run(*arguments, address=None):
        view = daemon.bubblewrap(a_device.certificates, a_device.credentials.certificates)
        done = subprocess.run(
            [*view, billingctl.program(), "doctor", "--json", "--timeout", "5", *arguments],
            capture_output=True, text=True, check=False, timeout=120,
            env={**billingctl.environment(bus), "PLEVO_DEVICE_CONF": str(a_device.file),
                 **a_device.credentials.environment,
                 **({"DBUS_SYSTEM_BUS_ADDRESS": address} if address else {})})
        report = json.loads(done.stdout)
        found = {check["check"]: check for check in report["checks"]}
        failed = [check for check in found if found[check]["outcome"] == "failed"]
        assert done.returncode == (FAILED if failed else DONE)
        assert report["failed"] == len(failed)
        assert all(found[check]["finding"] and found[check]["cure"] for check in failed)
        return found, failed
    return run


def test_nothing_fails_on_a_device_that_works(service, doctor):
    found, failed = doctor("--sign")
    assert list(found) == CHECKS
    assert failed == []
    assert {check for check in found if found[check]["outcome"] == "not checked"} == {"HTTP"}
    assert "demands the device's certificate" in found["HTTP"]["finding"]
    assert found["key"]["finding"] == "one signature, and the certificate confirms it"
    # Which program that is only root may see, and there is no root in this view.
    assert f"(process {service.pid}, user " in found["name"]["finding"]


def test_the_key_is_used_only_when_asked_for(service, doctor):
    found, failed = doctor()
    assert failed == []
    assert found["key"]["outcome"] == "not checked"


def no_settings(device, _authority):
    device.write_file("[network\n")


def no_certificate(device, _authority):
    device.credentials.certificate.unlink()


def no_certificate_in_the_file(device, _authority):
    device.credentials.certificate.write_text("nothing\n")


def no_bundle(device, _authority):
    device.ca_file.unlink()


def empty_bundle(device, _authority):
    device.ca_file.write_text("")


def other_bundle(device, _authority):
    device.ca_file.write_bytes(certificates.Authority().pem)


def another_token(device, _authority):
    device.set("keystore", "token", "other")


def another_pin(device, _authority):
    (device.credentials.folder / "pin").write_text("wrong")


def no_route(device, _authority):
    device.set("network", "default_gateway", "down")


def no_host(device, _authority):
    device.set("deployment", "production_host", None)


def unknown_host(device, _authority):
    device.set("deployment", "production_host", "store.invalid")


def no_server(device, _authority):
    device.set("deployment", "production_host", "localhost:1")


@pytest.mark.parametrize("break_it, check, cause", [
    (no_settings, "settings", "line 1"),
    (no_certificate, "certificate", "bgclient.crt: No such file or directory"),
    (no_certificate_in_the_file, "certificate", "holds no PEM certificate"),
    (no_bundle, "CA bundle", "ca.pem: No such file or directory"),
    (empty_bundle, "CA bundle", "holds no PEM certificate"),
    (other_bundle, "TLS", "certificate"),
    (another_token, "token", 'there is no token "other"'),
    (another_pin, "key", "CKR_PIN_INCORRECT"),
    (no_route, "route", "there is no default route"),
    (no_host, "name lookup", "[deployment] production_host is not set"),
    (unknown_host, "name lookup", "store.invalid"),
    (no_server, "TCP", "localhost port 1"),
])
def test_what_is_wrong_is_the_first_check_that_fails(service, doctor, a_device, authority, break_it,
                                                     check, cause):
    break_it(a_device, authority)
    found, failed = doctor("--sign")
    assert failed[0] == check
    assert cause in found[check]["finding"]


def test_a_clock_before_the_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(credentials.A_DAY, 2 * credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "clock"
    assert "before the device's certificate is valid" in found["clock"]["finding"]


def test_an_expired_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(-2 * credentials.A_DAY, -credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "certificate"
    assert "has expired: valid from" in found["certificate"]["finding"]


def test_a_key_of_another_certificate_is_found_out(service, doctor, a_device, tmp_path):
    key = tmp_path / "other.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=other",
                    "-keyout", key, "-out", a_device.credentials.certificate], check=True,
                   capture_output=True)
    found, failed = doctor("--sign")
    assert failed[0] == "key"
    assert found["key"]["finding"] == "the token's key is not the certificate's"


def test_a_service_that_does_not_run_is_found_out(doctor):
    found, failed = doctor()
    assert failed == ["name", "call"]
    assert found["name"]["finding"] == "nobody owns the name org.plevo.billingservice"


def test_a_bus_that_is_not_there_is_found_out(doctor):
    found, failed = doctor(address="unix:path=/nowhere")
    assert failed == ["bus"]
    assert [found[check]["outcome"] for check in ("name", "call")] == ["not checked"] * 2


def test_the_doctor_speaks_to_people_too(bus, tmp_path):
    done = billingctl.run(bus, "doctor", PLEVO_DEVICE_CONF=str(tmp_path / "none"))
    assert done.returncode == FAILED
    lines = done.stdout.splitlines()
    assert lines[0].startswith("failed       settings     ")
    assert lines[1].strip().startswith("cure: mend the file")
    assert lines[-1].endswith(" checks failed")
