"""A store that speaks HTTP/2 and ends or refuses streams as the protocol allows. Each call is answered, and the store
processes each request once.
"""
import collections

import pytest
from harness.store import http2_store
from harness.store.http2_store import answers_early, goes_away_after, goes_away_before, is_silent, refuses, wants_http_1_1

LIST = ("get_product_list", "app", "0", "check")
PURCHASE = ("confirm_purchase", "app", "custom", "invoice", "0")
REQUESTS = {LIST: ("GET", "/billing/product/v2/products"), PURCHASE: ("POST", "/billing/payment/v2/confirm")}
GOOD = (0, "{}")

# Ways in which the store ends a stream that it has not processed.
UNPROCESSED = [refuses, wants_http_1_1, goes_away_before]
PROCESSED = [answers_early, goes_away_after]


@pytest.fixture
def store(authority, provisioned, request):
    context = authority.server_context("localhost", "production.localhost", clients=provisioned.authority)
    running = http2_store.Http2Store(context)
    request.addfinalizer(running.stop)
    return running


def requests_of(seen, call):
    """Number of requests of a call at the store, by protocol."""
    return collections.Counter(
        {protocol: count for (protocol, *request), count in seen.items() if tuple(request) == REQUESTS[call]}
    )


@pytest.fixture(params=["first", "kept"])
def connected(request, service, caller, store):
    """Runs the test once with a recently used connection and once without one."""
    if request.param == "kept":
        assert caller.call(*LIST) == GOOD
        assert requests_of(store.take_seen(), LIST) == {"HTTP/2": 1}
    return request.param


@pytest.mark.parametrize("behaviour", UNPROCESSED)
def test_a_list_that_the_store_has_not_processed_is_asked_for_again(caller, store, connected, behaviour):
    store.then = [behaviour]

    assert caller.call(*LIST) == GOOD

    seen = requests_of(store.take_seen(), LIST)
    assert seen["HTTP/2"] in (1, 2) and sum(seen.values()) == 2
    assert caller.call(*LIST) == GOOD


@pytest.mark.parametrize("behaviour", PROCESSED)
def test_an_answer_counts_though_the_stream_or_the_connection_ends_with_it(caller, store, connected, behaviour):
    store.then = [behaviour]

    assert caller.call(*LIST) == GOOD
    assert requests_of(store.take_seen(), LIST) == {"HTTP/2": 1}
    assert caller.call(*LIST) == GOOD


@pytest.mark.parametrize("behaviour", UNPROCESSED + PROCESSED + [is_silent])
def test_a_purchase_goes_through_whatever_the_store_does_to_streams(caller, store, connected, behaviour):
    store.always = behaviour

    assert [caller.call(*PURCHASE, timeout=10) for _ in range(3)] == [GOOD] * 3

    assert requests_of(store.take_seen(), PURCHASE) == {"HTTP/1.1": 3}


@pytest.mark.parametrize("behaviour", [refuses, wants_http_1_1])
def test_lists_go_through_at_a_store_that_refuses_every_stream(caller, store, connected, behaviour):
    store.always = behaviour

    assert [caller.call(*LIST) for _ in range(3)] == [GOOD] * 3

    assert requests_of(store.take_seen(), LIST)["HTTP/1.1"] == 3
