"""How the lab's connections end, idle, fall silent and recover, as seen on the network."""
import socket
import ssl
import struct
import time

import pytest
from billing_lab.shop import state
from billing_lab.shop.faults import FaultError, make

from conftest import Client, request
from http2_client import Http2Client


class OneOfHttp1(Client):
    """HTTP/1.1 with the methods of the HTTP/2 client."""

    def __init__(self, store, context):
        super().__init__(store, context)
        self.is_http2 = False

    def ask(self, endpoint, **values):
        return self.send(request(endpoint, self._store.device, **values))[0]

    def start(self, endpoint, **values):
        self.tls.sendall(request(endpoint, self._store.device, **values))

    def until_end(self):
        try:
            while self.tls.recv(65536):
                pass
        except socket.timeout:
            raise AssertionError("the store keeps the connection") from None
        except (ssl.SSLError, ConnectionError) as error:
            return str(error)
        return ""


class OneOfHttp2(Http2Client):
    def __init__(self, store, context):
        super().__init__(store, context)
        self.is_http2 = True

    def ask(self, endpoint, **values):
        return super().ask(endpoint, **values).status


@pytest.fixture(params=[OneOfHttp1, OneOfHttp2], ids=["http1", "http2"])
def connect(request, store, device_context):
    """A function that makes another client."""
    made = []

    def make_one():
        made.append(request.param(store, device_context))
        return made[-1]

    yield make_one
    for client in made:
        client.close()


@pytest.fixture
def switch(store):
    def switched(fault, **options):
        store.do(store.simulator.connections.switch, fault, **options)

    return switched


def described(store):
    return store.do(store.simulator.connections.describe)


def stays(client, seconds):
    client.tls.settimeout(seconds)
    with pytest.raises(AssertionError, match="keeps the connection"):
        client.until_end()
    client.tls.settimeout(20)


def unacknowledged(client):
    """Number of sent segments that the other side has not acknowledged, by the kernel's count."""
    information = client.tls.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104)
    return struct.unpack_from("I", information, 24)[0]


def test_an_idle_connection_is_closed_after_five_seconds(store, device_context):
    start = time.monotonic()
    clients = [kind(store, device_context) for kind in (OneOfHttp1, OneOfHttp2, OneOfHttp1)]
    # The third client sends no request.
    assert [client.ask("country") for client in clients[:2]] == [200, 200]
    for client in clients:
        assert client.until_end() == "", "an end with TLS's notice"
        assert 5 <= time.monotonic() - start < 9


def test_a_connection_that_is_used_does_not_idle(store, connect, switch):
    switch("idle-close", ms=300)
    client = connect()
    for _ in range(3):
        time.sleep(0.15)
        assert client.ask("country") == 200
    store.do(store.simulator.add_fault, {"kind": "delay", "ms": 400})
    start = time.monotonic()
    assert client.ask("country") == 200
    assert client.until_end() == ""
    assert 0.4 + 0.3 <= time.monotonic() - start < 5
    if client.is_http2:
        assert client.away == 7


def test_the_least_limit_closes_after_each_answer(connect, switch):
    switch("idle-close", ms=0)
    client = connect()
    time.sleep(0.2)
    assert client.ask("confirm") == 200
    assert client.until_end() == ""


def test_the_usual_limit_comes_back(store, connect, switch):
    switch("idle-close", ms=100)
    assert described(store)["connection_options"] == {"ms": 100}
    switch("none")
    assert (described(store)["connection"], described(store)["connection_options"]) == ("none", {})
    client = connect()
    client.ask("country")
    stays(client, 0.4)


def test_silence_takes_what_is_connected_and_nothing_else(store, connect, switch):
    old = connect()
    assert old.ask("country") == 200
    switch("silent")
    assert described(store)["connection"] == "none"
    assert described(store)["connections"] == {"open": 1, "silent": 1, "listening": True}
    new = connect()
    assert new.ask("country") == 200
    old.start("confirm")
    stays(old, 0.5)
    assert unacknowledged(old) > 0
    assert "confirmed" not in store.do(state.invoice, store.db, "INV-SEED-2")
    assert new.ask("country") == 200


def test_silence_takes_what_is_under_way(store, connect, switch):
    store.do(store.simulator.add_fault, {"kind": "delay", "ms": 200})
    client = connect()
    client.start("country")
    time.sleep(0.1)
    switch("silent")
    stays(client, 0.5)


@pytest.mark.parametrize("answered", [True, False])
def test_a_silent_connection_outlives_the_idle_limit_and_ends_with_none(store, connect, switch, answered):
    switch("idle-close", ms=200)
    client = connect()
    client.start("country")
    if answered:
        client.tls.recv(65536)
    switch("silent")
    stays(client, 0.6)
    switch("none")
    assert client.until_end() != ""
    assert described(store)["connections"]["open"] == 0


def test_a_lost_request_leaves_a_connection_that_does_not_end(store, connect):
    fault = store.do(store.simulator.add_fault, {"kind": "lost", "count": 1, "done": True})
    client = connect()
    client.start("confirm")
    stays(client, 0.4)
    assert "confirmed" in store.do(state.invoice, store.db, "INV-SEED-2")
    assert (fault.left, connect().ask("country")) == (0, 200)


def test_goaway_over_http_1_1_closes_in_place_of_an_answer(store, client):
    store.do(store.simulator.add_fault, {"kind": "goaway"})
    client.tls.sendall(request("confirm", store.device))
    assert client.tls.recv(1) == b""
    assert "confirmed" not in store.do(state.invoice, store.db, "INV-SEED-2")


def test_a_restart_ends_everything_and_the_port_comes_back(store, connect, switch, device_context):
    before = connect()
    assert before.ask("country") == 200
    start = time.monotonic()
    switch("restart", ms=400)
    assert described(store)["connections"]["listening"] is False
    assert before.until_end() != ""
    with pytest.raises(ConnectionRefusedError):
        connect()
    while not described(store)["connections"]["listening"]:
        assert time.monotonic() - start < 5
        time.sleep(0.01)
    assert time.monotonic() - start >= 0.4
    assert connect().ask("country") == 200


def test_a_restart_forgets_sessions(store, clients, switch):
    first = clients()
    first.request("country")
    switch("restart", ms=0)
    time.sleep(0.1)
    assert not clients(first.tls.session).tls.session_reused


def test_a_restart_keeps_a_fault_of_the_connection_and_ends_early_with_the_next(store, device_context, switch):
    switch("refuse-tls")
    switch("restart", ms=60_000)
    assert described(store)["connection"] == "refuse-tls"
    switch("none")
    Client(store, device_context).close()


@pytest.mark.parametrize(
    "wanted, said",
    [
        ({"kind": "goaway", "done": True}, "goaway tells the client that nothing was done; it cannot strike after"),
        ({"kind": "refuse-stream", "done": True}, "it cannot strike after the work"),
        (
            {"kind": "refuse-stream", "endpoint": "confirm"},
            "refuse-stream cannot strike at confirm: the service sends payments over HTTP/1.1 alone",
        ),
    ],
)
def test_a_fault_that_would_lie_or_never_strike_is_refused(wanted, said):
    with pytest.raises(FaultError) as caught:
        make(wanted, 1, 0.0)
    assert said in str(caught.value)


@pytest.mark.parametrize(
    "fault, options, said",
    [
        ("restart", {"ms": 60_001}, "ms is 60001; it must be a number from 0 to 60000"),
        ("idle-close", {"ms": "1"}, "ms is '1'; it must be a number from 0 to 3600000"),
        ("silent", {"ms": 1}, "silent takes no 'ms'"),
        ("none", {"ms": 1}, "none takes no 'ms'"),
    ],
)
def test_an_option_that_cannot_be_is_refused_with_a_reason(store, switch, fault, options, said):
    before = described(store)
    with pytest.raises(FaultError) as caught:
        switch(fault, **options)
    assert said in str(caught.value)
    assert described(store) == before


def end_of_tcp(tls):
    """Reads to the FIN, below TLS. A reset raises."""
    while data := socket.socket.recv(tls, 65536):
        pass
    return data


def test_a_connection_is_cut_with_a_fin_also_before_the_client_s_bytes_are_read(store, client):
    client.request("country")

    def cut():
        (link,) = store.simulator.connections._links
        client.tls.sendall(b"GET /")
        link.cut()

    # The server's thread reads nothing while it calls this function.
    store.do(cut)
    assert end_of_tcp(client.tls) == b""


def test_a_connection_can_be_ended_again(store, client):
    client.request("country")

    def end():
        (link,) = store.simulator.connections._links
        link.cut()
        # As aiohttp does at the end of a request.
        link.transport.close()
        for again in (link.close, link.cut, link.reset, link.drop):
            again()

    store.do(end)
    assert end_of_tcp(client.tls) == b""
