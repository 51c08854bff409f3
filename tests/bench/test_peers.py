"""A peer does the same work as the daemon, so that its figures can be compared; the behaviour table is made from
observations.
"""
import json
import urllib.parse

import pytest
from measure import behaviour, services, stage  # first: adds the harness to Python's path

from harness.methods import EVERY_CALL

HEADERS = ("accept", "content-type", "duid", "atoken", "tvyear", "tvversion")


@pytest.fixture(scope="module", name="on")
def fixture_on(tmp_path_factory):
    stage.build()
    with stage.Stage(tmp_path_factory.mktemp("stage")) as on:
        yield on


def peer_of(on, label):
    found = [peer for peer in services.peers(on) if peer.label == label]
    if not found:
        pytest.skip("what it needs is not here (scripts/setup bench)")
    return found[0]


def essence(request):
    """The parts of a request that the store reads. Parts without an order are compared without one."""
    target = urllib.parse.urlsplit(request.line.split(" ")[1])
    headers = dict(line.split(": ", 1) for line in request.headers if ": " in line)
    kept = {name.lower(): value for name, value in headers.items() if name.lower() in HEADERS}
    body = json.loads(request.body) if request.body else None
    return request.client, request.line.split(" ")[0], target.path, urllib.parse.parse_qs(target.query), kept, body


def asked(on, service):
    """@return answer of each method, its request at the store, and whether the token signed"""
    before = on.proxy.count("sign")
    answers, requests = {}, {}
    with behaviour.Scene(on, service) as scene:
        for method in EVERY_CALL:
            answers[method] = scene.call(method).result
            (request,) = scene.store.take_requests()
            requests[method] = essence(request)
    return answers, requests, on.proxy.count("sign") > before


@pytest.mark.parametrize("label", services.PEERS)
def test_a_peer_asks_the_store_what_the_daemon_asks_with_the_token(on, label):
    answers, requests, signed = asked(on, peer_of(on, label))
    assert answers == dict.fromkeys(EVERY_CALL, (0, "{}"))
    assert signed
    expected_answers, expected, _ = asked(on, services.Daemon(on))
    assert answers == expected_answers
    assert requests == expected


@pytest.mark.parametrize("row", ["a certificate for another host", "control characters in arguments"])
def test_the_daemons_behaviour_is_seen(on, row):
    with behaviour.Scene(on, services.Daemon(on), behaviour.OTHER_NAMES.get(row, (stage.HOST,))) as scene:
        found = behaviour.ROWS[row](scene)
    assert (
        found
        == {
            "a certificate for another host": ["result -1", "at the store 0 ×"],
            "control characters in arguments": ["list: result -1, not sent", "purchase: result 0, sent whole"],
        }[row]
    )


def test_a_service_that_is_gone_is_told_from_one_that_goes_on(on):
    with behaviour.Scene(on, services.both(on)) as scene:
        assert "confirm" not in scene.purchases_seen()
        scene.service.stop()
        assert behaviour.told(scene.call("check_server_availability")) == "error ServiceUnknown"
        assert scene.fate() == "the service has ended"
