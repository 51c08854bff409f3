"""Each fault at a client, down to the bytes on the network."""
import socket
import ssl
import time

import pytest
from billing_lab.shop import purchases, state
from billing_lab.shop.faults import FaultError

from conftest import Client, request


@pytest.fixture
def fault(store):
    def add(kind, **options):
        return store.do(store.simulator.add_fault, {"kind": kind, **options})

    return add


def ask(store, client, endpoint="country"):
    return client.send(request(endpoint, store.device))


def everything(client):
    """Reads everything until the server closes the connection.
    @return the bytes, and how the connection ended
    """
    received = b""
    try:
        while data := client.tls.recv(65536):
            received += data
    except TimeoutError:
        raise AssertionError("the server keeps the connection") from None
    except OSError as error:
        return received, error
    return received, None


def test_a_status_comes_with_a_body_that_says_so(store, client, fault):
    fault("status", code=503, count=1)
    assert ask(store, client) == (503, b'{"status": "error", "code": "fault", "message": "a fault of the lab"}')
    assert ask(store, client)[0] == 200


def test_a_malformed_body_is_cut_and_its_answer_is_whole(store, client, fault):
    whole = ask(store, client)[1]
    fault("malformed")
    status, cut = ask(store, client)
    assert status == 200 and whole.startswith(cut) and 0 < len(cut) < len(whole)
    # The connection can still be used.
    assert ask(store, client)[0] == 200


def test_an_invalid_body_is_no_text(store, client, fault):
    fault("invalid-utf8")
    with pytest.raises(UnicodeDecodeError):
        ask(store, client)[1].decode()


def test_a_delay_comes_before_the_answer(store, client, fault):
    fault("delay", ms=300)
    start = time.monotonic()
    assert ask(store, client)[0] == 200
    assert time.monotonic() - start >= 0.3


def test_a_dripping_body_is_whole_in_the_end(store, clients, fault):
    whole = ask(store, clients())[1]
    fault("drip", ms=2)
    start = time.monotonic()
    assert ask(store, clients())[1] == whole
    assert time.monotonic() - start >= 0.002 * len(whole)


def test_a_truncated_answer_promises_more_than_comes(store, client, fault):
    fault("truncate")
    client.tls.sendall(request("country", store.device))
    received, error = everything(client)
    head, _, body = received.partition(b"\r\n\r\n")
    promised = int(head.lower().split(b"content-length: ")[1].split(b"\r\n")[0])
    assert len(body) < promised
    assert "UNEXPECTED_EOF" in str(error)


def is_reset(client):
    """Checks for a TCP reset on the plain socket, because TLS does not tell it from another end."""
    try:
        return socket.socket.recv(client.tls, 1) and False
    except ConnectionResetError:
        return True


def test_a_reset_is_one(store, client, fault):
    fault("reset")
    client.tls.sendall(request("country", store.device))
    assert is_reset(client)


def test_a_hanging_answer_ends_with_its_fault(store, client, fault):
    fault("hang")
    client.tls.sendall(request("country", store.device))
    client.tls.settimeout(0.5)
    with pytest.raises(socket.timeout):
        client.tls.recv(1)
    assert store.do(store.simulator.clear_faults) == 1
    client.tls.settimeout(20)
    assert everything(client)[0] == b""


def test_a_hanging_answer_ends_with_its_time(store, client, fault):
    fault("hang", seconds=0.3)
    start = time.monotonic()
    client.tls.sendall(request("country", store.device))
    assert everything(client)[0] == b"" and time.monotonic() - start >= 0.29


def test_a_huge_body_is_as_long_as_it_says(store, client, fault):
    fault("huge", mib=3)
    status, body = ask(store, client)
    assert (status, len(body)) == (200, 3 << 20)


@pytest.mark.parametrize("kind, done", [("status", False), ("reset", False), ("malformed", True), ("truncate", True)])
@pytest.mark.parametrize("wanted", [None, True, False])
def test_a_fault_strikes_before_or_after_the_work(store, client, fault, kind, done, wanted):
    fault(kind, **({} if wanted is None else {"done": wanted}))
    client.tls.sendall(request("confirm", store.device))
    client.tls.recv(65536) if kind != "reset" else everything(client)
    confirmed = "confirmed" in store.do(state.invoice, store.db, "INV-SEED-2")
    assert confirmed is (done if wanted is None else wanted)


def test_a_fault_is_for_an_endpoint_an_app_or_a_user(store, client, fault):
    fault("status", code=500, endpoint="products", app="app-2")
    fault("status", code=501, user="second@example.org")
    asked = [client.request("products", appid=app)[0] for app in ("app-1", "app-2")]
    store.device.update(uid="second@example.org", guid="second-guid")
    assert [*asked, client.request("invoices")[0]] == [200, 500, 501]


def test_a_fault_can_be_ended_alone(store, client, fault):
    first = fault("status", code=500)
    fault("status", code=501)
    assert ask(store, client)[0] == 500
    assert store.do(store.simulator.clear_faults, first.number) == 1
    assert ask(store, client)[0] == 501
    assert store.do(store.simulator.clear_faults, first.number) == 0


def test_the_journal_names_the_fault_and_how_the_answer_ended(store, clients, fault):
    fault("reset", count=1)
    everything_of = clients()
    everything_of.tls.sendall(request("country", store.device))
    everything(everything_of)
    fault("truncate", count=1)
    other = clients()
    other.tls.sendall(request("country", store.device))
    everything(other)
    end = time.monotonic() + 20
    while len(store.told) < 2 and time.monotonic() < end:
        time.sleep(0.01)
    first, second = store.told
    assert (first["fault"], first["answer"]["status"], first["answer"]["end"]) == ("reset", None, "reset")
    assert second["fault"] == "truncate" and second["answer"]["end"].startswith("cut after ")


def test_a_client_that_leaves_is_noted(store, client, fault):
    fault("delay", ms=60_000)
    client.tls.sendall(request("country", store.device))
    time.sleep(0.2)
    client.close()
    end = time.monotonic() + 20
    while not store.told and time.monotonic() < end:
        time.sleep(0.01)
    assert [entry["answer"]["end"] for entry in store.told] == ["the client left"]


def test_a_reserved_product_forces_its_outcome(store, clients):
    def bought(product):
        return store.do(lambda: purchases.buy(store.db, product=product, app="app-1", user="lab@example.org", country="US"))[
            "id"
        ]

    name = bought("NEVER-SHIP.confirm.status.503")
    assert [clients().request(endpoint, invoice=name)[0] for endpoint in ("apply", "confirm")] == [200, 503]
    reset = clients()
    reset.tls.sendall(request("apply", store.device, invoice=bought("NEVER-SHIP.apply.reset")))
    assert is_reset(reset)


@pytest.mark.parametrize(
    "kind, error, said",
    [
        ("refuse-tls", ssl.SSLError, "handshake failure"),
        ("expired", ssl.SSLCertVerificationError, "certificate has expired"),
        ("wrong-host", ssl.SSLCertVerificationError, "not valid for"),
        ("untrusted", ssl.SSLCertVerificationError, "unable to get local issuer certificate"),
    ],
)
def test_a_fault_of_the_connection_is_met_by_all(store, device_context, kind, error, said):
    store.do(store.simulator.connections.switch, kind)
    with pytest.raises(error) as caught:
        Client(store, device_context)
    assert said in str(caught.value).lower().replace("_", " ")
    store.do(store.simulator.connections.switch, "none")
    Client(store, device_context).close()


@pytest.mark.parametrize("kind", ["expired", "none"])
def test_switching_drops_what_is_connected_and_its_sessions(store, client, clients, kind):
    ask(store, client)
    session = client.tls.session
    store.do(store.simulator.connections.switch, kind)
    assert everything(client)[0] == b""
    store.do(store.simulator.connections.switch, "none")
    again = clients(session)
    assert not again.tls.session_reused
    assert ask(store, again)[0] == 200


def test_a_fault_of_the_connection_that_is_none_is_refused(store):
    with pytest.raises(FaultError, match="'fire' is no fault of the connection; known are none"):
        store.do(store.simulator.connections.switch, "fire")
