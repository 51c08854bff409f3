"""Many large answers of a store at once, beside purchases of another app. The daemon's memory has a bound, and each
answer arrives whole or as failed.
"""
import statistics
import time

import pytest
from harness import daemon
from harness.store.server import Reply

MIB = 1 << 20
# Almost the longest text that the bus carries.
LARGE = 32 * MIB - 1024
AT_ONCE = 20
# Seconds that most purchases may take beside them, and that the slowest may take on a busy machine.
SOON, LATEST = 1, 3
# MiB that the daemon may use at most.
MOST = 200

# Address space of a process of 32 bits, where the kernel keeps a quarter.
ADDRESSES = 3 << 30

PRODUCTS = "/billing/product/v2/products"


def memory(service, field="VmHWM"):
    """A field of the process's status in MiB; by default the peak of its memory."""
    return service.status_field(field) / 1024


def assert_whole_or_failed(calls, body):
    """Checks that each answer is whole or failed.
    @return number of whole answers
    """
    whole = 0
    for call in calls:
        assert call.error is None, call.error
        result, text = call.result
        assert result == -1 or (result == 0 and text == body)
        whole += result == 0
    return whole


def run_beside_purchases(caller, calls, pause=0.1):
    """Another app makes purchases until the calls are answered.
    @return seconds that each purchase took
    """
    took = []
    while not all(call.done for call in calls):
        began = time.monotonic()
        assert caller.call("confirm_purchase", "bystander", "c", str(len(took)), "0") == (0, "ok")
        took.append(time.monotonic() - began)
        time.sleep(pause)
    return took


@pytest.fixture
def large_store(start_nginx, tmp_path):
    """A function that runs a server whose product lists have that size in bytes."""

    def make(size, http2=False, length_known=True):
        # With server-side includes nginx does not send the length of a list.
        options = "" if length_known else "ssi on; ssi_types *;"
        (tmp_path / "list").write_bytes(b"x" * size)
        start_nginx(
            listen="http2" if http2 else "",
            connections=512,
            answer='return 200 "ok";',
            extra=f"location = {PRODUCTS} {{ alias {tmp_path}/list; {options} }}",
        )

    return make


def ask_at_once(callers):
    return [callers().start("get_product_list", "app", "0", "check", timeout=200) for _ in range(AT_ONCE)]


@pytest.mark.parametrize("length_known", [True, False], ids=["length", "chunks"])
@pytest.mark.parametrize("http2", [False, True], ids=["HTTP/1.1", "HTTP/2"])
def test_many_large_answers_at_once(large_store, service, callers, caller, figure, http2, length_known):
    large_store(LARGE, http2, length_known)
    caller.call("confirm_purchase", "bystander", "c", "first", "0")
    began = time.monotonic()
    calls = ask_at_once(callers)

    took = run_beside_purchases(caller, calls)

    whole = assert_whole_or_failed(calls, "x" * LARGE)
    most, middle = memory(service), statistics.median(took)
    figure(
        f"{whole} of {AT_ONCE} whole after {time.monotonic() - began:.1f} s; a purchase took {middle:.2f} s, "
        f"{max(took):.2f} at most; daemon at most {most:.0f} MiB, then {memory(service, 'VmRSS'):.0f}"
    )
    assert whole > 0
    if not daemon.is_sanitized():
        assert most < MOST
        assert middle < SOON and max(took) < LATEST


@pytest.mark.skipif(daemon.is_sanitized(), reason="a sanitizer takes more addresses than that")
def test_many_large_answers_with_the_addresses_of_32_bits(large_store, needs_view, start_daemon, callers, caller, figure):
    large_store(LARGE)
    service = start_daemon(tool=["prlimit", f"--as={ADDRESSES}"])
    service.wait_for_name(caller)
    calls = ask_at_once(callers)

    run_beside_purchases(caller, calls)

    assert service.is_running()
    whole = assert_whole_or_failed(calls, "x" * LARGE)
    assert whole > 0
    figure(
        f"{whole} of {AT_ONCE} whole; daemon at most {memory(service):.0f} MiB, "
        f"{memory(service, 'VmPeak'):.0f} of addresses"
    )


def test_one_large_answer_costs_at_most_two_and_a_half_times_its_size(service, store, caller, figure):
    store.answer = Reply(b"{}")
    caller.call("get_product_list", "app", "0", "check")
    idle = memory(service)
    store.answer = Reply(b"x" * LARGE)

    assert caller.call("get_product_list", "app", "0", "check") == (0, "x" * LARGE)

    times = (memory(service) - idle) * MIB / LARGE
    figure(f"{times:.2f} times its size above {idle:.0f} MiB; then {memory(service, 'VmRSS'):.0f} MiB")
    assert daemon.is_sanitized() or times < 2.5


class AllButTheEnd:
    """A large answer whose last byte is never sent."""

    def perform(self, connection, server):
        connection.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % (LARGE + 1) + b"x" * LARGE)
        server.wait_for(server.stopping)
        return False


def test_answers_that_stop_before_their_end_hold_nobody_up(service, store, callers, caller, figure):
    listed = "y" * 5 * MIB
    store.answer = lambda request: (
        AllButTheEnd()
        if "appid=hostile" in request.line
        else Reply(listed.encode())
        if "products" in request.line
        else Reply(b"ok")
    )
    hostile = callers()
    stopped = [hostile.start("get_product_list", "hostile", "0", "check", timeout=200) for _ in range(AT_ONCE)]
    store.wait_for_requests(AT_ONCE)
    other = callers().start("get_product_list", "other", "0", "check", timeout=60)
    began = time.monotonic()

    took = run_beside_purchases(caller, [other])

    waited = time.monotonic() - began
    assert other.result == (0, listed)
    ended = {call.result[0] for call in stopped if call.done}
    assert ended <= {-1}
    figure(
        f"another app's 5 MiB came after {waited:.1f} s, {sum(call.done for call in stopped)} were cut off; "
        f"a purchase took {max(took):.2f} s at most; daemon at most {memory(service):.0f} MiB"
    )
    if not daemon.is_sanitized():
        # Two turns of the silent answers at most, and delays of the machine.
        assert waited < 25
        assert memory(service) < MOST and max(took) < LATEST
