"""Effects of time on a running daemon: a standby between two calls, and certificates that expire."""
import datetime
import time

import pytest
from billing_lab.folder import replace_file
from harness import daemon
from harness.device import certificates
from harness.store import contextless

LIST = ("get_product_list", "app", "0", "check")
PURCHASE = ("confirm_purchase", "app", "custom", "invoice", "0")
GOOD = (0, "nginx")
AN_HOUR = 3600
A_SECOND = datetime.timedelta(seconds=1)


@pytest.fixture
def standby(tmp_path):
    """A function that simulates a standby of some seconds, for a daemon with its preloaded library."""
    file = tmp_path / "standby"

    def sleep(seconds):
        replace_file(file, f"{seconds}\n".encode())

    sleep(0)
    library = daemon.binary().parents[1] / "tests" / "support" / "standby.so"
    assert library.exists()
    sleep.environment = {
        "LD_PRELOAD": str(library),
        "STANDBY_FILE": str(file),
        "ASAN_OPTIONS": daemon.SANITIZERS["ASAN_OPTIONS"] + ":verify_asan_link_order=0",
    }
    return sleep


@pytest.mark.parametrize("first, second", [(LIST, PURCHASE), (PURCHASE, LIST)])
def test_after_a_standby_calls_go_over_new_connections(needs_view, start_daemon, caller, store, standby, first, second):
    process = start_daemon(environment=standby.environment)
    process.wait_for_name(caller)
    assert [caller.call(*LIST) for _ in range(2)] == [(0, "{}")] * 2
    kept, again = store.take_requests()
    assert kept.connection == again.connection

    standby(AN_HOUR)

    assert [caller.call(*first), caller.call(*second)] == [(0, "{}")] * 2
    requests = store.take_requests()
    assert len(requests) == 2
    assert kept.connection not in {request.connection for request in requests}


def wait_until(moment):
    while datetime.datetime.utcnow() <= moment:
        time.sleep(0.05)


def whole_second_soon():
    """The whole second in which a certificate ends. Before it, a server starts and two calls are made: on a busy machine
    that took 8 seconds."""
    return datetime.datetime.utcnow().replace(microsecond=0) + datetime.timedelta(seconds=20)


def test_a_servers_certificate_that_expires_is_a_failure_until_it_is_renewed(service, caller, authority, start_nginx):
    soon = whole_second_soon()
    # The server resumes no session, so each connection shows the certificate.
    server = start_nginx(authority.server_pem("localhost", not_after=soon), extra="ssl_session_tickets off;")
    assert [caller.call(*LIST), caller.call(*PURCHASE)] == [GOOD, GOOD]
    wait_until(soon + A_SECOND)

    assert caller.call(*PURCHASE) == (-1, "")

    (said,) = service.failures()
    assert "ErrorCode = 60" in said
    assert "certificate has expired (the clock of this device says 2" in said
    server.certify(authority.server_pem("localhost"))
    server.restart()
    assert [caller.call(*PURCHASE), caller.call(*LIST)] == [GOOD, GOOD]
    assert [entry.method for entry in server.stop()].count("POST") == 2


def test_a_devices_certificate_that_expires_is_a_failure_that_says_so(
    service, caller, authority, a_device, other_store, tmp_path
):
    pem = tmp_path / "server.pem"
    pem.write_bytes(authority.server_pem("localhost"))
    # The server resumes no session, so it checks the device's certificate at each connection.
    store = other_store(contextless.Context(pem, a_device.credentials.authority))
    a_device.set("deployment", "production_host", f"localhost:{store.port}")
    soon = whole_second_soon()
    a_device.credentials.reissue(-certificates.A_DAY, soon - datetime.datetime.utcnow())
    assert caller.call(*PURCHASE) == (0, "{}")
    wait_until(soon + A_SECOND)

    assert caller.call(*PURCHASE) == (-1, "")

    (said,) = service.failures()
    assert "(the server says that the certificate of this device has expired)" in said
    assert len(store.requests) == 1
