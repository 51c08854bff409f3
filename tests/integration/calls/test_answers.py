"""The caller's answer for each behaviour of a server."""
import dataclasses
import datetime
import socket

import pytest
from harness.daemon import is_sanitized
from harness.device import certificates
from harness.methods import all_alike, answers
from harness.store.server import Endless, Raw, Reply, Reset, Truncate

# Length of the longest text in a reply on the system bus.
LIMIT = 33_554_375

FAILED = (-1, "")


@pytest.mark.parametrize(
    "status", ["500 Internal Server Error", "404 Not Found", "401 Unauthorized", "302 Found", "201 Created"]
)
def test_any_status_with_a_body_is_a_success(service, caller, store, status):
    store.answer = Reply(b'{"error": 1}', status, headers=("Location: https://localhost/other",))

    assert answers(caller) == all_alike((0, '{"error": 1}'))

    assert len(store.requests) == 5


def test_an_empty_body_is_a_success(service, caller, store):
    store.answer = Reply(b"")
    assert answers(caller) == all_alike((0, ""))


def test_a_body_that_ends_with_its_connection_is_a_success(service, caller, store):
    store.answer = Raw(b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nto the end")
    assert caller.call("check_server_availability") == (0, "to the end")


def test_a_compressed_body_is_handed_on_as_it_is(service, caller, store):
    store.answer = Reply(b"not unpacked", headers=("Content-Encoding: gzip",))
    assert caller.call("check_server_availability") == (0, "not unpacked")


def error_lines(daemon):
    """Log lines of failed transfers, in the form of the connector."""
    return [text for text in daemon.texts("E") if text.startswith("MZCurl multiResult ErrorCode")]


def test_nobody_listening_is_a_failure(service, caller, a_device):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    a_device.set("deployment", "production_host", f"localhost:{port}")

    assert answers(caller) == all_alike(FAILED)

    assert len(error_lines(service)) == 5
    assert sum("Http error!" in text for text in service.texts("E")) == 5


def untrusted(_authority):
    return certificates.Authority().server_context("localhost", clients=None)


def for_another_host(authority):
    return authority.server_context("elsewhere.example", clients=None)


def expired(authority):
    return authority.server_context("localhost", clients=None, not_after=datetime.datetime(2001, 1, 1))


@pytest.mark.parametrize("wrong", [untrusted, for_another_host, expired])
def test_a_server_that_cannot_prove_itself_gets_no_byte_of_a_request(service, caller, a_device, authority, other_store, wrong):
    store = other_store(wrong(authority))
    a_device.set("deployment", "production_host", f"localhost:{store.port}")

    assert answers(caller) == all_alike(FAILED)

    assert b"".join(store.connections) == b""
    assert len(store.connections) >= 5
    assert len(error_lines(service)) == 5


def test_a_server_without_tls_gets_no_byte_of_a_request(service, caller, a_device):
    with socket.create_server(("127.0.0.1", 0)) as plain:
        a_device.set("deployment", "production_host", f"localhost:{plain.getsockname()[1]}")
        call = caller.start("check_server_availability")
        connection, _ = plain.accept()
        received = connection.recv(65536)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")
        connection.close()
        caller.finish([call])

    assert call.result == FAILED
    assert b"GET" not in received and b"billing" not in received


def test_a_connection_that_is_reset_is_a_failure(service, caller, store):
    store.answer = Reset()
    assert answers(caller) == all_alike(FAILED)


@pytest.mark.parametrize("alert", [True, False])
def test_an_answer_that_is_cut_off_is_a_failure_with_what_came(alert, service, caller, store):
    store.answer = Truncate(b'{"half": ', missing=100, alert=alert)
    assert answers(caller) == all_alike((-1, '{"half": '))


@pytest.mark.parametrize(
    "method, arguments", [("confirm_purchase", ("a", "c", "i", "0")), ("get_applied_time", ("a", "c", "i", "0"))]
)
def test_a_payment_goes_over_a_connection_of_its_own_and_is_not_sent_again(service, caller, store, method, arguments):
    assert caller.call("check_server_availability") == (0, "{}")
    store.take_requests()
    store.answer = Reset()

    assert caller.call(method, *arguments) == FAILED

    (request,) = store.take_requests()
    assert request.connection == 1

    store.answer = Reply(b"next")
    assert caller.call(method, *arguments) == (0, "next")
    assert len(store.take_requests()) == 1


@pytest.mark.parametrize(
    "body, text",
    [
        (b"a\xffb", "a\ufffdb"),
        (b"a\x00b\x00", "a\ufffdb\ufffd"),
        (b"\xc0\x80\xed\xa0\x80", "\ufffd" * 5),
        (b"\xf4\x90\x80\x80", "\ufffd" * 4),
        (b"cut \xe2\x82", "cut \ufffd\ufffd"),
        (b"\xef\xbb\xbf\x01\x1b[31m\x7f\r\n", "\ufeff\x01\x1b[31m\x7f\r\n"),
        ("Grüße, 請求, 𝄞".encode(), "Grüße, 請求, 𝄞"),
        (b"100%s %n %d", "100%s %n %d"),
    ],
)
def test_a_body_reaches_the_caller_as_valid_text(service, caller, store, body, text):
    store.answer = Reply(body)
    assert caller.call("get_product_list", "a", "", "") == (0, text)


def long_text(size):
    return (b"0123456789abcdef" * (size // 16 + 1))[:size]


def test_the_longest_body_that_the_bus_carries_is_carried(service, caller, store):
    store.answer = Reply(long_text(LIMIT))

    result, text = caller.call("check_server_availability")

    assert result == 0
    assert text.encode() == store.answer.body


def still_served(caller, store, owner):
    store.answer = Reply(b"next")
    return caller.call("check_server_availability") == (0, "next") and caller.owner() == owner


def test_a_body_one_byte_longer_is_a_failure_with_what_came_before(service, caller, store):
    owner = caller.owner()
    body = long_text(LIMIT + 1)
    store.answer = Reply(body)

    result, text = caller.call("check_server_availability")

    assert result == -1
    assert body.startswith(text.encode())
    assert still_served(caller, store, owner)


TOO_LONG_AS_TEXT = {"one byte": lambda: long_text(LIMIT - 1) + b"\xff", "every byte": lambda: b"\xff" * (LIMIT // 2)}


@pytest.mark.parametrize("mended", TOO_LONG_AS_TEXT)
def test_a_body_that_is_too_long_once_it_is_valid_is_a_failure_without_text(service, caller, store, mended):
    owner = caller.owner()
    store.answer = Reply(TOO_LONG_AS_TEXT[mended]())

    assert caller.call("check_server_availability") == FAILED

    assert still_served(caller, store, owner)


@dataclasses.dataclass
class Stream:
    """An answer with a beginning and then the same bytes repeated until the client closes."""

    beginning: bytes
    again: bytes

    def perform(self, connection, running):
        connection.send(self.beginning)
        while not running.stopping.is_set():
            connection.send(self.again)
        return False


OK = b"HTTP/1.1 200 OK\r\n"
MEGABYTE = b"100000\r\n" + b"x" * (1 << 20) + b"\r\n"
STREAMS = {
    "headers": Stream(OK, b"X-More: " + b"x" * 1000 + b"\r\n"),
    "a header without an end": Stream(OK + b"X-Long: ", b"x" * 1000),
    "trailers": Stream(OK + b"Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n", b"X-More: " + b"x" * 1000 + b"\r\n"),
    "interim answers": Stream(b"", b"HTTP/1.1 100 Continue\r\nX-More: " + b"x" * 1000 + b"\r\n\r\n"),
    "a GiB that is announced": Stream(OK + b"Content-Length: 1073741824\r\n\r\n", b"x" * (1 << 20)),
    "a GiB in one chunk": Stream(OK + b"Transfer-Encoding: chunked\r\n\r\n40000000\r\n", b"x" * (1 << 20)),
    "a GiB in chunks": Stream(OK + b"Transfer-Encoding: chunked\r\n\r\n", MEGABYTE),
}


@pytest.mark.parametrize("stream", STREAMS)
def test_an_answer_that_grows_and_grows_is_a_failure_and_takes_no_more_memory_than_the_largest(service, caller, store, stream):
    owner = caller.owner()
    store.answer = STREAMS[stream]

    result, _ = caller.call("confirm_purchase", "a", "c", "i", "0")

    assert result == -1
    # Four times the longest text, and the daemon's own memory.
    assert service.status_field("VmHWM") < 4 * LIMIT // 1024 + (400_000 if is_sanitized() else 30_000)
    assert still_served(caller, store, owner)


@pytest.mark.parametrize("size", [1, 4096, 16_384, 65_536, 1 << 20, (1 << 20) + 1])
def test_a_body_of_any_size_arrives_whole(service, caller, store, size):
    store.answer = Reply(long_text(size))
    assert caller.call("check_server_availability") == (0, store.answer.body.decode())


def test_a_body_without_an_end_is_a_failure(service, caller, store):
    owner = caller.owner()
    store.answer = Endless()

    result, _ = caller.call("check_server_availability")

    assert result == -1
    assert still_served(caller, store, owner)
