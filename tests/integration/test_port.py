"""Another platform's library in the place of the daemon's own, without a rebuild: the worked example of a port."""
import pytest
from harness import daemon
from harness.methods import EVERY_CALL, NO_NETWORK, all_alike, answers


@pytest.fixture
def ported(needs_view, start_daemon, caller, tmp_path, store, a_device):
    """The daemon on the example's library, and a function that sets a value of its device."""
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
    process = start_daemon(environment={"LD_LIBRARY_PATH": str(library), "PLEVO_EXAMPLE_DEVICE": str(folder)})
    process.wait_for_name(caller)
    return put


def test_every_method_is_answered_by_the_store_with_the_devices_certificate(ported, caller, store):
    assert answers(caller) == all_alike((0, "{}"))
    assert len(store.requests) == len(EVERY_CALL)


def test_what_the_example_says_is_what_the_daemon_does(ported, caller, store):
    ported("gateway", "down")
    assert answers(caller) == all_alike(NO_NETWORK)
    assert store.requests == []
