"""billingctl doctor on the connection to the store: faulty stores and unusual but correct ones."""
import datetime
import re
import ssl
import time

import pytest
from harness.device import certificates
from harness.store import server
from harness.tools import page
from harness.tools.doctor import preloaded

BUNDLE = "/opt/down/cert/ca.pem"
NOT_REACHED = "the request did not come that far"
DEMANDED = "the store demands the device's certificate, which only the service presents: see the call below"
TLS_12 = (
    "have the store speak TLS 1.2 there, which the device's key needs; is it the right port in [deployment] production_host"
)


@pytest.fixture
def a_store(authority, other_store, a_device):
    """A function that runs another store and sets it as the device's store."""

    def make(clients, *names, **options):
        context = authority.server_context(*(names or ("localhost",)), clients=clients, **options)
        return make.with_context(context)

    def with_context(context):
        running = other_store(context)
        a_device.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    make.with_context = with_context
    return make


def test_the_store_that_demands_no_certificate_is_followed_to_its_answer(service, doctor, a_store):
    a_store(None)
    found, failed = doctor()
    assert failed == []
    assert found["HTTP"]["finding"] == "status 200, without the device's certificate and headers"


@pytest.mark.parametrize("demands", [True, False])
def test_a_store_of_another_name_is_found_out(service, doctor, a_store, provisioned, demands):
    a_store(provisioned.authority if demands else None, "other.test", "192.0.2.1")
    found, failed = doctor()
    assert failed == ["TLS", "call"]
    assert found["TLS"]["finding"] == ("the server's certificate is for other.test, 192.0.2.1, not for localhost")
    assert found["TLS"]["cure"] == "set [deployment] production_host to a name that it is for"
    assert found["HTTP"]["finding"] == NOT_REACHED


def test_a_store_may_be_an_address(service, doctor, a_store, a_device):
    running = a_store(None, "127.0.0.1")
    a_device.set("deployment", "production_host", f"127.0.0.1:{running.port}")
    found, failed = doctor()
    assert failed == []
    assert found["TLS"]["finding"] == "the CA bundle vouches for 127.0.0.1"


def test_an_authority_that_is_not_known_is_named(service, doctor, a_device):
    a_device.ca_file.write_bytes(certificates.Authority().pem)
    found, failed = doctor()
    assert failed == ["TLS", "call"]
    assert re.fullmatch(
        r"SSL certificate problem: unable to get local issuer certificate \(\"localhost, "
        r"production\.localhost, sandbox\.localhost\" is signed by \".+\"\)",
        found["TLS"]["finding"],
    )
    assert found["TLS"]["cure"] == (
        f"put the authority that vouches for the store into {BUNDLE}; if it "
        "is there, this is not the store, or it does not send its whole "
        "chain"
    )


def test_a_store_whose_certificate_is_over_is_named(service, doctor, a_store):
    a_store(None, not_after=datetime.datetime.utcnow() - datetime.timedelta(days=1))
    found, failed = doctor()
    assert failed == ["TLS", "call"]
    assert re.fullmatch(
        r'the certificate "localhost" has expired: valid from [-0-9]{10} to '
        r"[-0-9]{10}, and the clock says [-0-9]{10} \d\d:\d\d UTC",
        found["TLS"]["finding"],
    )
    assert found["TLS"]["cure"] == "renew it at the store; if the clock is wrong, set it"


def test_a_store_of_tls_13_only_is_named(service, doctor, a_store, authority, provisioned):
    context = authority.server_context("localhost", clients=provisioned.authority)
    context.minimum_version = ssl.TLSVersion.TLSv1_3
    a_store.with_context(context)
    found, failed = doctor()
    assert failed == ["TLS", "call"]
    assert "protocol version" in found["TLS"]["finding"]
    assert found["TLS"]["cure"] == TLS_12


def test_a_port_that_takes_connections_and_says_nothing_is_named(service, doctor, a_device):
    with server.listen() as silent:
        a_device.set("deployment", "production_host", f"localhost:{silent.getsockname()[1]}")
        found, failed = doctor(seconds="1")
        # While the port is open: the end of the call in the moment of SIGTERM would leave a result without a reader.
        assert service.stop() == 0
    assert failed == ["TLS", "call"]
    assert found["TLS"]["cure"] == ("look at what listens there: it takes the connection and says nothing")
    assert found["call"]["finding"] == "the service did not answer within 1 s"


def test_a_store_that_takes_the_request_and_says_nothing_is_named(service, doctor, a_store):
    a_store(None).answer = server.Hang()
    found, failed = doctor(seconds="1")
    assert failed == ["HTTP", "call", "request"]
    assert found["request"]["id"] == "request.slow"
    assert "timed out" in found["HTTP"]["finding"]
    assert found["HTTP"]["cure"] == "look at the store: it took the request and did not answer"


def test_a_store_that_is_broken_is_named(service, doctor, a_store):
    a_store(None).answer = server.Reply(b"<html>\n<p>Back soon", status="503 Service Unavailable")
    found, failed = doctor()
    assert failed == ["HTTP", "call", "request"]
    assert found["HTTP"]["finding"] == 'the store answered with status 503: "<html> <p>Back soon"'
    assert found["HTTP"]["cure"] == "look at the store's log: the device has done its part"


@pytest.mark.parametrize(
    "answer, outcome, name, finding",
    [
        (
            server.Reply(b"<html>Back soon", status="503 Service Unavailable"),
            "failed",
            "request.outage",
            'the store answered the device with HTTP status 503: "<html>Back soon"',
        ),
        (
            server.Reply(b"<html>Back soon"),
            "failed",
            "request.page",
            'the store answered the device with HTTP status 200 and HTML or XML: "<html>Back soon"',
        ),
        (
            server.Reply(b"soon"),
            "warning",
            "request.no-json",
            'the store answered the device with HTTP status 200 and no JSON: "soon"',
        ),
        (
            server.Reply(b'{"error": "who?"}', status="401 Unauthorized"),
            "failed",
            "request.refused",
            'the store answered the device with HTTP status 401: "{"error": "who?"}"',
        ),
        (
            server.Reply(b"{}", status="302 Found", headers=("Location: https://portal/",)),
            "failed",
            "request.redirect",
            'the store answered the device with HTTP status 302: "{}"',
        ),
    ],
)
def test_what_a_store_says_to_the_device_is_shown(service, doctor, store, answer, outcome, name, finding):
    store.answer = answer
    found, _ = doctor("--sign")
    assert found["request"] | {"cure": None} == {
        "check": "request",
        "id": name,
        "outcome": outcome,
        "finding": finding,
        "cure": None,
    }
    warned = [record.text for record in service.log() if record.priority == "W"]
    assert any("HTTP 503" in text for text in warned) == ("503" in answer.status)


def test_a_transfer_that_fails_has_the_number_that_the_cure_names(service, doctor, store):
    store.answer = server.Reset()
    found, _ = doctor("--sign")
    assert found["request"]["id"] == "request.transfer"
    assert re.fullmatch(r"ErrorCode = 56: \S.*", found["request"]["finding"])
    assert found["request"]["cure"] == (
        "see ErrorCode = 56 in TROUBLESHOOTING.md, which the sources and the package billing-service have, "
        "and the store's log"
    )
    assert 56 in page.NUMBERS


def test_the_request_is_the_service_s_own(service, doctor, caller, store):
    caller.call("check_server_availability")
    doctor("--sign")
    first, *_, last = store.requests
    assert (first.raw, first.client) == (last.raw, last.client)
    assert first.client is not None


def test_a_store_that_demands_the_certificate_in_its_answer_is_no_failure(service, doctor, start_nginx):
    start_nginx(answer='return 200 "{}";')
    found, failed = doctor()
    assert failed == []
    assert (found["HTTP"]["outcome"], found["HTTP"]["finding"]) == ("not checked", DEMANDED)


def test_names_that_nobody_resolves_are_not_waited_for(service, doctor, a_device):
    a_device.set("deployment", "production_host", "store.invalid")
    began = time.monotonic()
    found, failed = doctor(seconds="1", **preloaded("slow-names"))
    assert time.monotonic() - began < 20  # a look-up takes 60 s
    assert failed == ["name lookup", "call"]
    assert "timed out" in found["name lookup"]["finding"]
