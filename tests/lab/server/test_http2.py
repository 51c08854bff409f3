"""The store over HTTP/2, with each fault, at a client on the network."""
import socket
import subprocess
import time

import pytest
from billing_lab.shop import journal, purchases, state
from h2.errors import ErrorCodes

from conftest import HOST, request
from http2_client import Answer, Http2Client, request_headers


@pytest.fixture
def http2(store, device_context):
    """A function that makes a client."""
    made = []

    def make(**options):
        made.append(Http2Client(store, device_context, **options))
        return made[-1]

    yield make
    for client in made:
        client.close()


@pytest.fixture
def fault(store):
    def add(kind, **options):
        return store.do(store.simulator.add_fault, {"kind": kind, **options})

    return add


def entries(store):
    return store.do(lambda: journal.entries(store.db))


def wait_for_end(store, number=0):
    """The entry of the journal, after its request has ended."""
    end = time.monotonic() + 20
    while len(known := entries(store)) <= number or "milliseconds" not in known[number]["answer"]:
        assert time.monotonic() < end, known
        time.sleep(0.01)
    return known[number]


@pytest.mark.parametrize("endpoint", ["country", "products", "invoices", "apply", "confirm"])
def test_a_request_is_answered_as_over_http_1_1_and_is_exact(store, client, http2, endpoint):
    status, body = client.send(request(endpoint, store.device))
    answer = http2().ask(endpoint)
    assert (answer.status, answer.body) == (status, body)
    assert (answer.headers["content-length"], answer.end_in_body) == (str(len(body)), True)
    older, newer = entries(store)
    assert (older["protocol"], newer["protocol"]) == ("HTTP/1.1", "HTTP/2")
    assert (newer["endpoint"], newer["url"], newer["body"]) == (older["endpoint"], older["url"], older["body"])
    assert (newer["differences"], newer["certificate"]) == ([], older["certificate"])
    assert newer["headers"][0] == [":method", older["method"]]


def test_a_client_of_another_make_is_served(store):
    """curl uses the same library as the daemon."""
    url = f"https://{store.device['host']}/billing/service/v2/country?countrycode=US"
    done = subprocess.run(
        [
            "curl",
            "--silent",
            "--http2",
            "--tls-max",
            "1.2",
            "--cacert",
            store.folder / "ca.pem",
            "--cert",
            store.folder / "client.pem",
            "--header",
            "Atoken: token-1",
            "--write-out",
            " %{http_version}",
            "--resolve",
            f"{HOST}:{store.port}:127.0.0.1",
            url,
        ],
        capture_output=True,
        text=True,
        check=True,
    )
    assert '"available": true' in done.stdout and done.stdout.endswith(" 2")


def test_a_resumed_session_is_told_from_a_full_handshake(store, http2):
    first = http2()
    first.ask("country")
    http2(session=first.tls.session).ask("country")
    assert [(entry["connection"], entry["handshake"]) for entry in entries(store)] == [(1, "full"), (2, "resumed")]
    assert {entry["tls"] for entry in entries(store)} == {"TLSv1.2"}


@pytest.mark.parametrize(
    "change, said",
    [
        (lambda pairs: [*pairs, ("user-agent", "me")], "there is a header 'user-agent: me'"),
        (lambda pairs: [pair for pair in pairs if pair[0] != "duid"], "there is no header 'duid: duid-1'"),
        (lambda pairs: [*pairs[:-2], pairs[-1], pairs[-2]], "the headers stand in another order"),
        (lambda pairs: [*pairs[:1], (":path", pairs[1][1] + "&more=1"), *pairs[2:]], "the request line is 'GET /"),
        (lambda pairs: [*pairs[:3], (":authority", "elsewhere"), *pairs[4:]], "there is no header ':authority: prod"),
    ],
)
def test_a_request_that_differs_says_where(store, http2, change, said):
    client = http2()
    headers, _ = request_headers("country", store.device)
    client.finish(client.send(change(headers)))
    assert entries(store)[0]["differences"][0].startswith(said)


def test_the_order_of_pseudo_headers_is_the_library_s_own(store, http2):
    client = http2()
    headers, _ = request_headers("country", store.device)
    client.finish(client.send([headers[0], *reversed(headers[1:4]), *headers[4:]]))
    assert entries(store)[0]["differences"] == []


def test_streams_do_not_wait_for_each_other(store, http2, fault):
    fault("delay", ms=400, endpoint="country")
    client = http2()
    slow, quick = client.start("country"), client.start("products")
    assert client.finish(quick).status == 200
    assert not client.answers[slow].whole
    assert client.finish(slow).status == 200
    assert {entry["connection"] for entry in entries(store)} == {1}


def test_a_body_waits_for_the_client_s_room(store, http2, fault):
    fault("huge", mib=1)
    client = http2(window=1000)
    number = client.start("country")
    while len(client.answers[number].body) < 1000:
        client.read()
    client.tls.settimeout(0.3)
    with pytest.raises(AssertionError, match="sends nothing"):
        client.read()
    client.tls.settimeout(20)
    client.allow(number, 2 << 20)
    assert len(client.finish(number).body) == 1 << 20
    assert wait_for_end(store)["answer"]["end"] == "whole"


def test_a_large_request_and_a_long_address_are_taken(store, http2):
    client = http2()
    headers, _ = request_headers("confirm", store.device)
    number = client.send([pair for pair in headers if pair[0] != "content-length"], b"x" * 30_000)
    assert client.finish(number).status == 400
    assert entries(store)[0]["body"]["bytes"] == 30_000
    assert client.ask("products", appid="y" * 20_000).status == 404


def test_what_is_no_http_2_is_kept_and_ended(store, http2):
    client = http2()
    client.tls.sendall(b"\0\0\1\6\0\0\0\0\0x")
    client.until_end()
    (entry,) = entries(store)
    assert (entry["protocol"], entry["answer"]["status"]) == ("HTTP/2", None)
    assert "it cannot be read" in entry["differences"][0]


def test_a_client_that_gives_up_a_stream_is_noted(store, http2, fault):
    fault("delay", ms=60_000, endpoint="country")
    client = http2()
    number = client.start("country")
    client.ask("products")
    client.h2.reset_stream(number, ErrorCodes.CANCEL)
    client.flush()
    assert wait_for_end(store)["answer"]["end"] == "the client left"
    assert client.ask("products").status == 200


# Faults in an answer


def test_a_status_a_malformed_and_an_invalid_body(http2, fault):
    client = http2()
    whole = client.ask("country").body
    fault("status", code=503, count=1)
    assert (client.ask("country").status, client.ask("country").status) == (503, 200)
    fault("malformed", count=1)
    cut = client.ask("country")
    assert cut.whole and whole.startswith(cut.body) and cut.body != whole
    fault("invalid-utf8", count=1)
    with pytest.raises(UnicodeDecodeError):
        client.ask("country").body.decode()


@pytest.mark.parametrize("code", [204, 304])
def test_a_status_without_a_body_ends(client, http2, fault, store, code):
    fault("status", code=code)
    assert client.send(request("country", store.device)) == (code, b"")
    answer = http2().ask("country")
    assert (answer.status, answer.body, answer.whole) == (code, b"", True)


def test_a_delay_and_a_dripping_body(http2, fault):
    client = http2()
    whole = client.ask("country").body
    for kind, least in (("delay", 0.2), ("drip", 0.001 * len(whole))):
        fault(kind, ms=200 if kind == "delay" else 1, count=1)
        start = time.monotonic()
        assert client.ask("country").body == whole
        assert time.monotonic() - start >= least


def test_a_truncated_answer_ends_the_connection_in_mid_body(http2, fault):
    client = http2()
    fault("truncate")
    answer = client.ask("country")
    assert len(answer.body) < int(answer.headers["content-length"])
    # Without a close alert. The client's own acknowledgement may be what fails.
    assert not answer.whole and client.end != ""


def test_a_reset_is_one_of_the_connection(store, http2, fault):
    client = http2()
    fault("reset")
    client.start("country")
    with pytest.raises(ConnectionResetError):
        while socket.socket.recv(client.tls, 65536):
            pass
    assert wait_for_end(store)["answer"]["end"] == "reset"


def test_a_hanging_answer_ends_with_its_fault_and_holds_no_other(store, http2, fault):
    client = http2()
    fault("hang", endpoint="country")
    number = client.start("country")
    assert client.ask("products").status == 200
    store.do(store.simulator.clear_faults)
    client.until_end()
    assert client.answers[number].status is None


def test_a_lost_request_silences_its_connection_alone(store, http2, fault):
    struck, other = http2(), http2()
    fault("lost", endpoint="country")
    number = struck.start("country")
    assert wait_for_end(store)["answer"]["end"] == "the connection is silent"
    struck.start("products")
    struck.tls.settimeout(0.4)
    with pytest.raises(AssertionError, match="keeps the connection"):
        struck.until_end()
    assert struck.answers[number].status is None
    assert other.ask("products").status == 200
    assert [entry["endpoint"] for entry in entries(store)] == ["country", "products"]


def test_goaway_does_not_cover_its_stream_and_nothing_was_done(store, http2, fault):
    client = http2()
    first = client.start("country")
    assert client.finish(first).status == 200
    fault("goaway")
    number = client.start("confirm")
    assert client.until_end() == ""
    assert (client.away, client.answers[number].status) == (first, None)
    assert "confirmed" not in store.do(state.invoice, store.db, "INV-SEED-2")
    assert wait_for_end(store, 1)["answer"] == {**entries(store)[1]["answer"], "status": None, "end": "told to go away"}


def test_goaway_lets_what_is_under_way_come_to_its_end(http2, fault):
    client = http2()
    fault("delay", ms=300, endpoint="products")
    fault("goaway", endpoint="country")
    covered, left_out = client.start("products"), client.start("country")
    assert client.finish(covered).status == 200
    assert client.until_end() == ""
    assert (client.away, client.answers[left_out].status) == (covered, None)


def test_goaway_never_denies_what_was_done(store, http2, fault):
    """A stream with a higher number was accepted before the affected request was complete, so only the affected stream
    is refused.
    """
    client = http2()
    fault("delay", ms=300, endpoint="country")
    fault("goaway", endpoint="confirm")
    headers, body = request_headers("confirm", store.device)
    low = client.h2.get_next_available_stream_id()
    client.h2.send_headers(low, headers)
    client.flush()
    client.answers[low] = Answer()
    high = client.start("country")
    end = time.monotonic() + 20
    while not entries(store) and time.monotonic() < end:
        time.sleep(0.01)
    client.h2.send_data(low, body, end_stream=True)
    client.flush()
    assert client.finish(low).reset == ErrorCodes.REFUSED_STREAM
    assert client.finish(high).status == 200
    client.until_end()
    assert client.away == high


def test_a_refused_stream_says_so_and_the_next_is_served(store, http2, fault):
    client = http2()
    fault("refuse-stream", count=1)
    assert client.ask("country").reset == ErrorCodes.REFUSED_STREAM
    assert client.ask("country").status == 200
    assert entries(store)[0]["answer"]["end"] == "refused"


def test_a_client_of_http_1_1_is_never_refused(store, client, http2, fault):
    fault("refuse-stream", count=1)
    assert client.send(request("country", store.device))[0] == 200
    assert http2().ask("country").reset == ErrorCodes.REFUSED_STREAM


def test_a_reserved_product_forces_its_outcome(store, http2):
    name = store.do(
        lambda: purchases.buy(store.db, product="NEVER-SHIP.confirm.goaway", app="app-1", user="lab@example.org", country="US")
    )["id"]
    client = http2()
    assert client.ask("apply", invoice=name).status == 200
    client.start("confirm", invoice=name)
    client.until_end()
    assert client.away == 1
