"""billingctl doctor on devices with less common faults, and on what will fail soon."""
import datetime
import subprocess
import time

import pytest
from cryptography import x509
from harness.device import certificates
from harness.device.credentials import A_DAY
from harness.store import server
from harness.tools.doctor import outcomes

CERTIFICATE = "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt"


# --- validity that ends soon ---


def test_a_certificate_that_ends_soon_has_to_be_looked_at(start_daemon, needs_view, caller, doctor, a_device):
    a_device.credentials.reissue(-A_DAY, 12 * A_DAY + A_DAY / 2)
    process = start_daemon()
    process.wait_for_name(caller)
    found, failed = doctor()
    assert failed == []
    assert outcomes(found, "warning") == {"certificate"}
    assert found["certificate"]["finding"].endswith(": 12 days left")
    assert [text for text in process.texts("W") if "certificate" in text] == [
        "the device's certificate ends in 12 days; put a new one there with billing-provision"
    ]


@pytest.mark.parametrize(
    "validity, said",
    [
        ((-2 * A_DAY, -A_DAY * 1.5), "the device's certificate has ended 1 days ago"),
        (certificates.NOT_YET, "the device's certificate is not valid yet by this clock; set the clock"),
    ],
)
def test_a_start_with_a_certificate_of_another_time_is_logged(start_daemon, needs_view, caller, a_device, validity, said):
    a_device.credentials.reissue(*validity)
    process = start_daemon()
    process.wait_for_name(caller)
    assert [text.startswith(said) for text in process.texts("W") if "certificate" in text] == [True]


def test_a_start_with_a_certificate_that_lasts_says_nothing_of_it(service):
    assert not any("certificate" in text for text in service.texts("W"))


def test_authorities_that_end_soon_have_to_be_looked_at(service, doctor, a_device):
    made = a_device.credentials.certify(validity=(-A_DAY, 3 * A_DAY + A_DAY / 2))
    a_device.ca_file.write_bytes(made)
    found, _ = doctor()
    assert found["CA bundle"]["id"] == "ca-bundle.expires"
    assert found["CA bundle"]["finding"] == "1 certificate, the last of them ends: 3 days left"


def test_a_store_whose_certificate_ends_soon_has_to_be_looked_at(
    service, doctor, authority, other_store, a_device, provisioned
):
    ends = datetime.datetime.utcnow() + datetime.timedelta(days=5, hours=12)
    running = other_store(authority.server_context("localhost", clients=provisioned.authority, not_after=ends))
    a_device.set("deployment", "production_host", f"localhost:{running.port}")
    found, failed = doctor()
    assert failed == []
    assert outcomes(found, "warning") == {"TLS"}
    assert found["TLS"]["finding"] == ("the CA bundle vouches for localhost, whose certificate ends: 5 days left")


@pytest.mark.parametrize("hours, outcome", [(0, "ok"), (2, "warning"), (-2, "warning")])
def test_the_clock_is_held_against_the_store_s(service, doctor, authority, other_store, a_device, hours, outcome):
    running = other_store(authority.server_context("localhost", clients=None))
    now = time.gmtime(time.time() + hours * 3600)
    running.answer = server.Reply(b"{}", headers=(time.strftime("Date: %a, %d %b %Y %H:%M:%S GMT", now),))
    a_device.set("deployment", "production_host", f"localhost:{running.port}")
    found, failed = doctor()
    assert (failed, found["time"]["outcome"]) == ([], outcome)
    assert {2: " behind ", -2: " ahead of ", 0: " differ by "}[hours] in found["time"]["finding"]


# --- the key ---


def test_a_key_of_another_kind_is_named(service, doctor, a_device, tmp_path):
    key = tmp_path / "ec.pem"
    subprocess.run(
        ["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key],
        check=True,
        capture_output=True,
    )
    pin = (a_device.credentials.folder / "pin").read_text().strip()
    subprocess.run(
        ["softhsm2-util", "--import", key, "--token", "billing-lab", "--label", "ec", "--id", "0000004d", "--pin", pin],
        check=True,
        capture_output=True,
        env={"PATH": "/usr/bin:/bin", **a_device.credentials.environment},
    )
    a_device.set("deployment", "key_id", "77")
    found, failed = doctor("--sign")
    assert failed[0] == "key"
    assert found["key"]["id"] == "key.other-kind"
    assert found["key"]["finding"] == (
        "the token's key with CKA_ID 0000004d is an EC key, and the service signs with RSA keys of 2048 bits only"
    )


def test_a_certificate_of_another_kind_is_named(service, doctor, a_device):
    subprocess.run(
        [
            "openssl",
            "req",
            "-x509",
            "-newkey",
            "ec",
            "-pkeyopt",
            "ec_paramgen_curve:P-256",
            "-nodes",
            "-subj",
            "/CN=other",
            "-keyout",
            a_device.credentials.folder / "other.key",
            "-out",
            a_device.credentials.certificate,
        ],
        check=True,
        capture_output=True,
    )
    found, failed = doctor()
    assert failed[0] == "certificate"
    assert found["certificate"]["finding"] == (
        f"{CERTIFICATE} is for an EC key with 256 bits and not for an RSA key with 2048 bits"
    )


def test_sealed_material_that_waits_for_the_start_is_no_missing_key(service, doctor, a_device, tmp_path):
    sealed = tmp_path / "sealed"
    sealed.write_bytes(b"sealed")
    a_device.set("deployment", "key_material", str(sealed))
    a_device.set("deployment", "key_id", "77")
    found, failed = doctor("--sign")
    assert failed[:2] == ["key material", "key"]
    assert found["key"]["id"] == "key.sealed"
    assert found["key"]["cure"].startswith("systemctl restart billing-service")
    assert "billing-provision request" not in found["key"]["cure"]


def test_no_token_at_all_asks_for_its_variable(service, doctor, tmp_path):
    (tmp_path / "none").mkdir()
    (tmp_path / "softhsm2.conf").write_text(f"directories.tokendir = {tmp_path / 'none'}\n")
    found, failed = doctor(SOFTHSM2_CONF=str(tmp_path / "softhsm2.conf"))
    assert failed == ["token"]
    assert "SOFTHSM2_CONF" in found["token"]["cure"]


# --- the store ---


def test_a_store_that_does_not_know_the_device_s_authority_names_it(
    service, doctor, authority, other_store, a_device, tmp_path
):
    other = tmp_path / "other.pem"
    other.write_bytes(certificates.Authority().pem)
    running = other_store(authority.server_context("localhost", clients=other))
    a_device.set("deployment", "production_host", f"localhost:{running.port}")
    signed = x509.load_pem_x509_certificate(a_device.credentials.certificate.read_bytes())
    issuer = signed.issuer.get_attributes_for_oid(x509.NameOID.COMMON_NAME)[0].value
    found, failed = doctor()
    assert failed == ["call", "request"]
    assert found["request"]["id"] == "request.authority"
    assert f'"{issuer}" has signed' in found["request"]["finding"]
    assert found["request"]["cure"].startswith(f'have the store trust "{issuer}", with every authority above it')


@pytest.mark.parametrize("host, check", [("localhost:1", "TCP"), ("store.invalid", "name lookup")])
def test_a_network_with_a_proxy_only_is_named(service, doctor, a_device, host, check):
    a_device.set("deployment", "production_host", host)
    found, failed = doctor(https_proxy="http://proxy.example:3128")
    assert failed[0] == check
    assert found[check]["id"] == check.lower().replace(" ", "-") + ".proxy"
    assert found[check]["finding"].endswith(
        "; the environment (https_proxy) names a proxy, and the service uses none: it needs a way of its own to the store"
    )
