"""Servers with the idle limits of their packages, and pauses as long as those limits."""
import heapq
import time

from harness.store import books, load, ordinary
from harness.store.load import product_list, purchase

# Offsets of the pauses from a limit, in seconds.
PAUSES = (-0.5, 0, 0.5)
# The short form tests servers with a limit up to this, in seconds.
A_SHORT_LIMIT = 5


def until(due):
    time.sleep(max(0, due - time.monotonic()))


def test_pauses_around_the_default_idle_limits_fail_no_call(service, caller, a_device, shop, start_server, size, figure):
    servers = [
        start_server(kind, http2=http2)
        for kind, made in ordinary.SERVERS.items()
        for http2 in ordinary.PROTOCOLS
        if made.IDLE <= size(A_SHORT_LIMIT, made.IDLE)
    ]
    pauses = size(PAUSES[-1:], PAUSES)

    def talk_to(number, name):
        a_device.set("deployment", "production_host", f"localhost:{servers[number].port}")
        each = f"{name}-{number}"
        return load.run(caller, [purchase(each), product_list(each)])

    outcome = load.Outcome([], [], 0)
    # Heap of pauses of all servers at the same time: end of the pause, server, number of its pauses so far.
    waiting = [(0, number, 0) for number in range(len(servers))]
    while waiting:
        due, number, pause = heapq.heappop(waiting)
        until(due)
        outcome += talk_to(number, f"after-{pause}")
        if pause < len(pauses):
            due = time.monotonic() + servers[number].IDLE + pauses[pause]
            heapq.heappush(waiting, (due, number, pause + 1))

    books.check(outcome, shop, *servers)
    figure(f"{outcome.count} calls at {len(servers)} servers with pauses around their own limits: none failed")
