"""The journal, and the check that a request is exactly as it should be."""
import socket
import ssl
import time

import pytest
from billing_lab.shop import check, journal

from conftest import HOST, Client, request


def entries(store, **options):
    return store.do(lambda: journal.entries(store.db, **options))


def wait_for(store, count):
    end = time.monotonic() + 20
    while len(found := entries(store)) < count:
        assert time.monotonic() < end, found
        time.sleep(0.01)
    return found


def test_a_request_is_kept_whole_with_its_answer(store, client):
    status, body = client.send(request("confirm", store.device))
    # The caller has its answer a moment before the journal contains its duration.
    end = time.monotonic() + 20
    while "milliseconds" not in (entry := entries(store)[0])["answer"]:
        assert time.monotonic() < end, entry
    assert 0 <= entry["answer"].pop("milliseconds") < 20000
    assert entry["answer"] == {"status": status, "end": "whole", "bytes": len(body), "text": body.decode()}
    assert (entry["kind"], entry["endpoint"], entry["method"]) == ("request", "confirm", "POST")
    assert entry["url"] == f"https://{HOST}:{store.port}/billing/payment/v2/confirm"
    assert ["Atoken", "token-1"] in entry["headers"]
    assert '"invoiceId" : "INV-SEED-2"' in entry["body"]["text"]
    assert entry["certificate"]["sha256"] == store.device["certificate"]
    assert (entry["tls"], entry["connection"], entry["fault"]) == ("TLSv1.2", 1, None)
    assert entry["time"].endswith("Z")


def test_a_kept_connection_and_a_resumed_session_are_told_apart(store, clients):
    first = clients()
    first.request("country")
    first.request("country")
    clients(first.tls.session).request("country")
    found = [(entry["connection"], entry["handshake"]) for entry in entries(store)]
    assert found == [(1, "full"), (1, "full"), (2, "resumed")]
    # The resumed session carries the certificate, which was not sent again.
    assert entries(store)[2]["certificate"]["sha256"] == store.device["certificate"]


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_a_client_without_a_certificate_gets_no_answer_and_an_entry(store, version):
    context = ssl.create_default_context(cafile=store.folder / "ca.pem")
    context.minimum_version = context.maximum_version = version
    with pytest.raises(OSError):
        Client(store, context).send(request("country", store.device))
    (entry,) = wait_for(store, 1)
    assert (entry["kind"], entry["reason"]) == ("handshake", "peer did not return a certificate")


def test_a_client_that_does_not_trust_the_server_leaves_an_entry(store):
    with pytest.raises(ssl.SSLCertVerificationError):
        Client(store, ssl.create_default_context())
    (entry,) = wait_for(store, 1)
    assert "unknown ca" in entry["reason"]


def test_what_is_no_http_is_kept_too(store, client):
    assert client.send(b"HELP\r\n\r\n")[0] == 400
    (entry,) = wait_for(store, 1)
    assert (entry["body"]["text"], entry["answer"]["status"]) == ("HELP\r\n\r\n", 400)
    assert "it cannot be read" in entry["differences"][0]


def test_a_plain_connection_does_not_disturb(store, client):
    with socket.create_connection(("127.0.0.1", store.port)) as plain:
        plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
        assert client.request("country")[0] == 200


def test_a_long_address_is_taken(store, client):
    long = "x" * 100_000
    assert client.request("products", appid=long)[0] == 404
    assert long in entries(store)[0]["url"]


@pytest.mark.parametrize("endpoint", ["country", "products", "invoices", "apply", "confirm"])
def test_the_daemon_s_own_request_is_exact(store, client, endpoint):
    assert client.request(endpoint)[0] == 200
    assert entries(store)[0]["differences"] == []


@pytest.mark.parametrize("values", [{"appid": "a%26b=c", "checkvalue": "100%/+?"}, {"appid": ""}])
def test_what_the_caller_chooses_may_be_anything_but_another_part_of_the_query(store, client, values):
    client.request("products", **values)
    assert entries(store)[0]["differences"] == []


@pytest.mark.parametrize(
    "endpoint, old, new, said",
    [
        ("country", "&lang=", "&language=", "the request line is"),
        ("products", "&storeprodcode=1", "", "the request line is"),
        ("invoices", "TvYear: 15\r\n", "", "there is no header 'TvYear: 15'"),
        ("invoices", "Accept: ", "User-Agent: me\r\nAccept: ", "there is a header 'User-Agent: me'"),
        ("country", "DUID: duid-1\r\nAtoken: token-1", "Atoken: token-1\r\nDUID: duid-1", "the headers stand in another order"),
        ("country", "DUID: ", "duid: ", "there is no header 'DUID: duid-1'"),
        ("apply", '   "GUID" : ', '  "GUID"  : ', "the body is not the nine members in their layout"),
        ("confirm", '"UID" : "lab', '"UID" : "Lab', "the body is not the nine members in their layout"),
        ("country", "HTTP/1.1", "HTTP/1.0", "the request line is"),
    ],
)
def test_a_request_that_differs_says_where(store, client, endpoint, old, new, said):
    raw = request(endpoint, store.device).decode()
    assert old in raw
    client.send(raw.replace(old, new).encode())
    assert entries(store)[0]["differences"][0].startswith(said)


def test_another_certificate_than_the_device_s_is_a_difference(store, client):
    store.device["certificate"] = "0"
    client.request("country")
    assert entries(store)[0]["differences"] == ["the certificate is not the device's"]


@pytest.mark.parametrize(
    "locale, code, good",
    [
        ("de_DE.utf8", "de", True),
        ("fr_CA.utf8", "fr-US", True),
        ("nn_NO.utf8", "no", True),
        ("", "ko", True),
        ("qq", "en", True),
        ("de_DE.utf8", "fr", False),
        ("de_DE.utf8", "deu", False),
    ],
)
def test_a_language_code_fits_its_locale(store, locale, code, good):
    device = {**store.device, "locale": locale}
    raw = request("country", device).replace(b"lang=en", f"lang={code}".encode())
    found = check.differences(check.Sent.of_http1(raw), "country", device, {"sha256": device["certificate"]})
    assert (found == []) is good


def test_the_journal_is_read_from_a_number_on_or_from_its_end(store, client):
    for _ in range(4):
        client.request("country")
    assert [entry["seq"] for entry in entries(store)] == [1, 2, 3, 4]
    assert [entry["seq"] for entry in entries(store, after=2)] == [3, 4]
    assert [entry["seq"] for entry in entries(store, last=1)] == [4]
    store.do(journal.clear, store.db)
    client.request("country")
    assert [entry["seq"] for entry in entries(store)] == [5]


def test_the_journal_keeps_the_newest(store, monkeypatch, client):
    monkeypatch.setattr(journal, "KEPT_ENTRIES", 3)
    for _ in range(5):
        client.request("country")
    assert [entry["seq"] for entry in entries(store)] == [3, 4, 5]


def test_the_journal_is_bounded_by_bytes_too(store, monkeypatch, client):
    client.request("country")
    client.request("country")
    size = store.db.journal_bytes // 2
    monkeypatch.setattr(journal, "KEPT_TOTAL_BYTES", size * 3 + size // 2)
    for _ in range(5):
        client.request("country")
    kept = entries(store)
    assert [entry["seq"] for entry in kept] == [5, 6, 7]
    assert store.do(lambda: journal.span(store.db)) == {"entries": 3, "first": 5, "last": 7, "newest": 7}
    # An entry larger than the limit for all entries is kept as the only one.
    monkeypatch.setattr(journal, "KEPT_TOTAL_BYTES", 1)
    client.request("country")
    assert [entry["seq"] for entry in entries(store)] == [8]


@pytest.mark.parametrize("kind, options, size", [("huge", {"mib": 2}, 2 << 20), ("drip", {"ms": 1}, None)])
def test_the_size_of_an_answer_is_what_was_sent(store, client, kind, options, size):
    store.do(store.simulator.add_fault, {"kind": kind, **options})
    body = client.send(request("country", store.device))[1]
    end = time.monotonic() + 20
    while not store.told:
        assert time.monotonic() < end
        time.sleep(0.01)
    assert store.told[0]["answer"]["bytes"] == len(body)
    assert size in (None, len(body))


def test_a_cut_answer_is_kept_as_far_as_it_was_sent(store, client):
    store.do(store.simulator.add_fault, {"kind": "truncate"})
    with pytest.raises(OSError):
        client.tls.sendall(request("country", store.device))
        while client.tls.recv(65536):
            pass
    end = time.monotonic() + 20
    while not store.told:
        assert time.monotonic() < end
        time.sleep(0.01)
    answer = store.told[0]["answer"]
    assert answer["end"] == f"cut after {answer['bytes']} bytes"
    assert len(answer["text"]) == answer["bytes"]


def test_a_request_that_hangs_is_told_while_it_hangs(store, client):
    store.do(store.simulator.add_fault, {"kind": "hang"})
    client.tls.sendall(request("country", store.device))
    end = time.monotonic() + 20
    while not store.events:
        assert time.monotonic() < end
        time.sleep(0.01)
    assert (store.events, store.told) == ([("begun", 1)], [])
    assert entries(store)[0]["answer"]["end"] == "under way"
    store.do(store.simulator.clear_faults)


def test_a_follower_that_does_not_read_is_let_go(monkeypatch):
    monkeypatch.setattr(journal, "WAITING_ENTRIES", 2)
    followers = journal.Followers()
    slow, quick = followers.add(), followers.add()
    for number in range(4):
        followers.tell("journal", {"seq": number})
        assert quick.get_nowait() == ("journal", {"seq": number})
    followers.end()
    assert [slow.get_nowait() for _ in range(slow.qsize())] == [("journal", {"seq": 0}), ("journal", {"seq": 1}), None]
    assert quick.get_nowait() is None


def test_bytes_that_are_no_text_are_kept(store):
    assert journal.body_of(b"\xff") == {"bytes": 1, "base64": "/w=="}


def test_an_entry_is_one_line(store, client):
    client.request("country")
    client.send(request("country", store.device).replace(b"DUID", b"ID"))
    first, second = (journal.line_of(entry) for entry in entries(store))
    assert first.split("  ", 1)[1].endswith(
        f"GET  country  200  {entries(store)[0]['answer']['bytes']} bytes  whole  HTTP/1.1  connection 1 (full)"
    )
    assert "NOT EXACT: there is no header 'DUID: duid-1'" in second
