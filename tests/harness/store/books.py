"""Checks after calls through servers in front of a shop: no call failed, nothing was sold twice."""
import collections


def check(outcome, shop, *servers):
    """Checks that each call got its own answer, and that servers and shop saw each purchase once. Stops
    the servers."""
    check_answers(outcome)
    check_shop(outcome, shop)
    check_log(outcome, *servers)


def check_shop(outcome, shop):
    sold = shop.purchases
    assert sold == dict.fromkeys(outcome.invoices, 1), {name: count for name, count in sold.items() if count != 1}


def check_answers(outcome):
    failed = collections.Counter(method for method, _, _ in outcome.failed)
    assert not failed, f"of {outcome.count} calls {dict(failed)}: {outcome.failed[:10]}"


def check_log(outcome, *servers):
    """Checks that the servers saw each purchase once, the device's certificate with every request, and
    lists over the protocol that they offer. Stops the servers."""
    purchases = 0
    for server in servers:
        asked = server.stop()
        purchases += sum(entry.method == "POST" for entry in asked)
        assert all("Billing lab device" in entry.client for entry in asked)
        assert server.protocol in {entry.protocol for entry in asked if entry.method == "GET"}
    assert purchases == len(outcome.invoices), f"{purchases}, not {len(outcome.invoices)}"
