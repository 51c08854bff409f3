"""Web servers with the configuration of their packages, in front of a shop that counts what it has sold. Time, limits,
reloads and restarts affect kept connections; no purchase may be lost or made twice.
"""
import contextlib
import select
import signal
import socket
import time

import pytest
from harness.store import books, load, ordinary
from harness.store.load import first, for_seconds, mixed, product_list, purchase

# Idle limit of the servers in these tests, in seconds.
IDLE = 1
KINDS = [
    pytest.param(kind, http2, id=f"{kind}-{protocol}")
    for kind in ordinary.SERVERS
    for http2, protocol in ordinary.PROTOCOLS.items()
]
LIMITING = [case for case in KINDS if ordinary.SERVERS[case.values[0]].LIMITS_REQUESTS]


def with_pauses(pauses):
    """A list, and after each pause a purchase and a list."""
    yield product_list("warm")
    for number, pause in enumerate(pauses):
        time.sleep(pause)
        yield purchase(f"paused-{number}")
        yield product_list(f"paused-{number}")


@pytest.mark.parametrize("kind, http2", KINDS)
def test_a_pause_around_the_idle_limit_fails_no_call(service, caller, start_server, shop, kind, http2):
    server = start_server(kind, http2=http2, idle=IDLE)

    outcome = load.run(caller, with_pauses([0.9 * IDLE, IDLE, 1.1 * IDLE]))

    books.check(outcome, shop, server)


@pytest.mark.parametrize("kind, http2", KINDS)
def test_after_a_burst_and_an_idle_close_no_call_fails(service, caller, start_server, shop, kind, http2):
    server = start_server(kind, http2=http2, idle=IDLE)
    shop.delay = 0.05
    burst = load.run(caller, first(40, mixed("burst")), flight=40)
    shop.delay = 0
    # lighttpd checks idle connections once a second.
    time.sleep(IDLE + 1)

    later = load.run(caller, [*map(product_list, "abcdefghijkl"), *map(purchase, "abcdefghijkl")])

    books.check(burst + later, shop, server)


@pytest.mark.parametrize("flight", [1, 8, 64])
@pytest.mark.parametrize("kind, http2", LIMITING)
def test_a_limit_of_20_requests_a_connection_fails_no_call(service, caller, start_server, shop, kind, http2, flight):
    server = start_server(kind, http2=http2, requests=20)

    outcome = load.run(caller, first(200, mixed("limit")), flight)

    books.check(outcome, shop, server)


@pytest.mark.parametrize("http2, flight", [(False, 1), (True, 1), (True, 8), (True, 64)])
def test_the_default_limit_of_nginx_fails_no_call(service, caller, start_server, shop, http2, flight):
    server = start_server("nginx", http2=http2)

    # More than the 1,000 requests that nginx allows on a connection.
    outcome = load.run(caller, first(2100, mixed("limit")), flight)

    books.check(outcome, shop, server)


@pytest.mark.parametrize("http2", [False, True], ids=ordinary.PROTOCOLS.values())
def test_an_answer_that_comes_before_the_body_was_read_counts(service, caller, start_server, http2):
    server = start_server("haproxy", http2=http2, by_itself=True)
    work = [each._replace(answer=server.OWN_ANSWER) for each in first(80, mixed("early"))]

    outcome = load.run(caller, work, 8)

    books.check_answers(outcome)
    books.check_log(outcome, server)


class Renewal:
    """Renews a server repeatedly while calls run, with a pause after each renewal."""

    FIRST = 0.3
    PAUSE = 0.5

    def __init__(self, server):
        self._server = server
        self._next = time.monotonic() + self.FIRST
        self.count = 0

    def __call__(self):
        if time.monotonic() >= self._next and self.is_done():
            self.count += 1
            self._next = time.monotonic() + self.PAUSE

    def is_done(self):
        raise NotImplementedError


class Reload(Renewal):
    def is_done(self):
        self._server.reload()
        return True


class Restart(Renewal):
    """Stops the server gracefully and starts it again after its end."""

    # A device that waits for the server must find it running for a while.
    PAUSE = 1.5

    def is_done(self):
        if not self._server.leaving:
            self._server.leave()
        elif self._server.has_left():
            self._server.start()
            return True
        return False


@pytest.mark.parametrize("renewal", [Reload, Restart])
@pytest.mark.parametrize("kind, http2", KINDS)
def test_a_server_that_is_renewed_under_load_loses_no_purchase(service, caller, start_server, shop, kind, http2, renewal):
    server = start_server(kind, http2=http2)
    # The first handshake takes longer than all others.
    warm = load.run(caller, [product_list("warm")])
    shop.delay = 0.01
    renew = renewal(server)

    outcome = warm + load.run(caller, for_seconds(1.5, mixed("load")), 8, renew)

    assert renew.count >= 1
    books.check_answers(outcome)
    books.check_shop(outcome, shop)
    # A worker process of the server that ends may lose the last lines of its log.
    assert sum(entry.method == "POST" for entry in server.stop()) <= len(outcome.invoices)


def test_a_server_that_is_away_for_a_second_is_waited_for(service, caller, start_server, shop):
    server = start_server("nginx")
    before = load.run(caller, [product_list("before")])
    server.leave()
    server.wait_until_it_has_left()
    comes_back = time.monotonic() + 1

    def come_back():
        if server.has_left() and time.monotonic() >= comes_back:
            server.start()

    meanwhile = load.run(caller, [purchase("meanwhile"), product_list("meanwhile")], 2, come_back)

    books.check(before + meanwhile, shop, server)
    assert time.monotonic() >= comes_back


@contextlib.contextmanager
def place_of(server, backlog):
    """A socket that listens at the port of a server that has left, and that accepts no connection. Its end resets those
    that wait."""
    server.leave()
    server.wait_until_it_has_left()
    with socket.create_server(("127.0.0.1", server.port), backlog=backlog) as listener:
        yield listener


def waits(listener, seconds):
    """True once a connection waits to be accepted."""
    return bool(select.select([listener], [], [], seconds)[0])


# A server that ends resets the connections that it has not accepted.
BOTH = [purchase("meanwhile"), product_list("meanwhile")]


def test_connections_that_a_server_resets_in_the_handshake_cost_no_call(service, caller, start_server, shop):
    server = start_server("nginx")
    with place_of(server, backlog=10) as listener:
        under_way = [caller.start(*each.call) for each in BOTH]
        assert waits(listener, 20)
        # The second connection and both handshakes begin.
        time.sleep(0.5)
    server.start()

    caller.finish(under_way)

    assert [call.result for call in under_way] == [(0, each.answer) for each in BOTH]
    assert shop.purchases == {"meanwhile": 1}


def test_connections_that_a_server_resets_before_the_handshake_cost_no_call(service, caller, start_server, shop):
    server = start_server("nginx")
    with place_of(server, backlog=0) as listener, socket.create_connection(("127.0.0.1", server.port)):
        # The kernel establishes no further connection.
        under_way = caller.start(*BOTH[0].call)
        time.sleep(0.5)
        service.send(signal.SIGSTOP)
        listener.accept()[0].close()
        # The kernel asks for the connection once more after one second, or three.
        assert waits(listener, 20)
    server.start()
    server.wait_until_it_answers()
    service.send(signal.SIGCONT)

    caller.finish([under_way])

    assert under_way.result == (0, BOTH[0].answer)
    assert shop.purchases == {"meanwhile": 1}
