"""The daemon with another platform library instead of its own, without a rebuild: the worked example of a port."""
import json
import subprocess

import pytest
from harness import daemon
from harness.methods import EVERY_CALL, NO_NETWORK, all_alike, answers
from harness.tools import billingctl
from harness.tools.doctor import examine, outcomes

LOOK_AT_THE_KEY = "look at the device's key store, and at the number in deployment_get_key_id() of the device's own library"


@pytest.fixture
def ported(needs_view, start_daemon, caller, tmp_path, store, a_device):
    """A daemon with the example's library, and a function that sets a value of its device."""
    folder = tmp_path / "example"

    def put(name, value):
        file = folder / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(value)

    for name, value in a_device.credentials.settings["deployment"].items():
        put(name, value)
    for name, value in a_device.credentials.settings["keystore"].items():
        put(f"keystore/{name}", value)
    put("production_host", f"production.localhost:{store.port}")
    put("sandbox_host", f"sandbox.localhost:{store.port}")
    put("gateway", "up")
    library = daemon.binary().parents[1] / "platform" / "example"
    put.variables = {"LD_LIBRARY_PATH": str(library), "PLEVO_EXAMPLE_DEVICE": str(folder)}
    process = start_daemon(environment=put.variables)
    process.wait_for_name(caller)
    return put


def test_every_method_is_answered_by_the_store_with_the_devices_certificate(ported, caller, store):
    assert answers(caller) == all_alike((0, "{}"))
    assert len(store.requests) == len(EVERY_CALL)


def test_what_the_example_says_is_what_the_daemon_does(ported, caller, store):
    ported("gateway", "down")
    assert answers(caller) == all_alike(NO_NETWORK)
    assert store.requests == []


def test_the_doctor_asks_the_ports_functions_and_its_key(ported, bus, a_device, store):
    found, failed = examine(bus, a_device, "--sign", **ported.variables)
    assert failed == []
    # The settings file of the reference backend names another server; nothing reads that file here.
    assert found["settings"]["finding"] == "this device's own library has them; its functions are asked"
    assert found["key"]["finding"] == "one signature, and the certificate confirms it"
    assert found["key material"]["finding"] == "the device's own library has no sealed key"
    assert {"token"} < outcomes(found, "not checked")
    assert found["request"]["finding"].startswith("the store answered the device with HTTP status 200")
    assert len(store.requests) == 2


@pytest.mark.parametrize(
    "name, value, check, finding, cure",
    [
        (
            "key_id",
            "",
            "key.not-set",
            "key_id is not set",
            "set [deployment] key_id in deployment_get_key_id() of the device's own library, "
            "then restart the service (systemctl restart billing-service)",
        ),
        (
            "sandbox_host",
            "",
            "name-lookup.not-set",
            "sandbox_host is not set",
            "set it to the store's host in deployment_get_host() of the device's own library",
        ),
        (
            "gateway",
            "down",
            "route.none",
            "there is no default route",
            "connect the device to its network; until then every call is answered with 1160003",
        ),
        ("key_id", "4711", "key.unusable", "there is no private key", LOOK_AT_THE_KEY),
        ("keystore/pin_file", "/no/pin", "key.unusable", "/no/pin", LOOK_AT_THE_KEY),
    ],
)
def test_the_doctor_names_what_a_port_lacks(ported, bus, a_device, name, value, check, finding, cure):
    ported(name, value)
    found, _ = examine(bus, a_device, "--sign", **ported.variables)
    of_id = {of["id"]: of for of in found.values()}
    assert finding in of_id[check]["finding"]
    assert of_id[check]["cure"] == cure


def test_a_library_that_cannot_be_loaded_is_named(ported, bus, a_device, tmp_path):
    (tmp_path / "libbilling-platform.so.1").write_text("none")
    found, failed = examine(bus, a_device, **{**ported.variables, "LD_LIBRARY_PATH": str(tmp_path)})
    assert "settings" in failed and found["settings"]["id"] == "settings.library"
    assert "libbilling-platform.so.1" in found["settings"]["finding"]


def test_status_and_methods_need_no_settings_file(ported, bus, a_device):
    view = daemon.bubblewrap(a_device.certificates, a_device.credentials.certificates)
    environment = {**billingctl.environment(bus), **ported.variables, "PLEVO_DEVICE_CONF": "/no/file"}

    def said(*words):
        done = subprocess.run(
            [*view, billingctl.program(), "--json", *words],
            capture_output=True,
            text=True,
            check=False,
            timeout=60,
            env=environment,
        )
        assert (done.returncode, done.stderr) == (billingctl.DONE, ""), done
        return json.loads(done.stdout)

    status = said("status")
    assert status["settings"] == "the device's own library"
    assert status["server"].startswith("sandbox, sandbox.localhost:")
    assert status["account"] == "no user is signed in"
    ported("guid", "somebody")
    assert said("status")["account"] == "signed in"
    assert said("check-server-availability")["resp_result"] == 0
