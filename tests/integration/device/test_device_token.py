"""The token with the device's key: removed, refusing, wrong or slow; and the number of its signatures."""
import os
import random
import subprocess
import time

import pytest
from harness import daemon
from harness.device import token_proxy
from harness.methods import EVERY_CALL, all_alike, answers

FAILED = (-1, "")
WORKS = (0, "{}")
DEVICE = "CN=Billing lab device"


def signatures(process):
    return process.texts().count("Encrypt by KeyStore")


def complaints(process):
    """Log lines about failures of the key store."""
    return [record.text for record in process.log() if record.priority == "E" and record.tag == "BILLING_PLATFORM"]


@pytest.fixture
def cold_store(server_context, other_store, a_device):
    """A function that sets a new store, so that the next call needs a signature."""

    def make():
        running = other_store(server_context)
        a_device.set("deployment", "production_host", f"production.localhost:{running.port}")
        return running

    return make


@pytest.fixture
def proxy(tmp_path, a_device):
    """Control of a PKCS#11 module in front of the token's, which fails on demand."""
    folder = tmp_path / "proxy"
    folder.mkdir()
    return token_proxy.TokenProxy(folder, a_device)


@pytest.fixture
def proxied(needs_view, start_daemon, caller, proxy):
    """A daemon that uses this module."""
    process = start_daemon(environment=proxy.environment)
    process.wait_for_name(caller)
    return process


def test_a_token_that_is_pulled_fails_new_connections_only_and_comes_back_without_a_restart(
    service, caller, store, a_device, cold_store
):
    assert answers(caller) == all_alike(WORKS)
    a_device.credentials.pull()

    # A kept connection needs no signature.
    assert answers(caller) == all_alike(WORKS)
    # A resumed session needs no signature either.
    store.answer.keep = False
    assert [caller.call("check_server_availability") for _ in range(3)] == [WORKS] * 3
    assert store.requests[-1].resumed
    assert complaints(service) == []

    cold = cold_store()
    assert caller.call("check_server_availability") == FAILED
    assert cold.requests == []
    (line,) = complaints(service)
    assert line.startswith('key store: token "billing-lab" of ')
    assert "no such token; plug it in" in line

    a_device.credentials.put_back()
    assert answers(caller) == all_alike(WORKS)
    assert {request.client for request in cold.requests} == {DEVICE}
    assert len(complaints(service)) == 1


def test_a_daemon_that_starts_without_its_token_uses_it_when_it_comes(needs_view, start_daemon, caller, store, a_device):
    a_device.credentials.pull()
    process = start_daemon()
    process.wait_for_name(caller)
    assert caller.call("check_server_availability") == FAILED
    assert store.requests == []
    assert all("no such token" in line for line in complaints(process))

    a_device.credentials.put_back()

    assert answers(caller) == all_alike(WORKS)


@pytest.mark.parametrize("value", [None, "0", "", "seven", "4294967296"])
def test_without_a_key_id_the_token_is_not_asked(needs_view, start_daemon, caller, store, a_device, proxy, value):
    a_device.set("deployment", "key_id", value)
    process = start_daemon(environment=proxy.environment)
    process.wait_for_name(caller)

    assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    assert proxy.count("sign") == 0
    assert signatures(process) == 0
    (line,) = complaints(process)
    assert "[deployment] key_id" in line


def test_a_key_id_that_the_token_does_not_have_is_named(needs_view, start_daemon, caller, store, a_device):
    a_device.set("deployment", "key_id", "4711")
    process = start_daemon()
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == FAILED

    assert store.requests == []
    assert all("no private key with CKA_ID 00001267" in line for line in complaints(process))


def test_a_wrong_pin_is_tried_once_and_the_right_one_is_used_without_a_restart(
    needs_view, start_daemon, caller, store, a_device, proxy
):
    pin_file = a_device.credentials.folder / "pin"
    right = pin_file.read_text()
    pin_file.write_text("0000-wrong\n")
    process = start_daemon(environment=proxy.environment)
    process.wait_for_name(caller)

    for _ in range(3):
        assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    assert proxy.count("login") == 1
    lines = complaints(process)
    assert "CKR_PIN_INCORRECT" in lines[0]
    assert all("is not tried again" in line for line in lines)

    # Each further wrong PIN costs one more login; earlier wrong PINs are remembered.
    for pin, logins in (("1111-wrong\n", 2), ("0000-wrong\n", 2), ("1111-wrong\n", 2)):
        pin_file.write_text(pin)
        assert caller.call("check_server_availability") == FAILED
        assert proxy.count("login") == logins

    pin_file.write_text(right)
    assert answers(caller) == all_alike(WORKS)
    assert proxy.count("login") == 3
    assert not any(pin in process.log_text() for pin in ("0000-wrong", "1111-wrong", right.strip()))


def test_a_wrong_pin_is_not_tried_again_by_the_next_start(needs_view, start_daemon, caller, a_device, proxy):
    pin_file = a_device.credentials.folder / "pin"
    right = pin_file.read_text()
    pin_file.write_text("0000-wrong\n")
    for _ in range(4):
        process = start_daemon(environment=proxy.environment)
        process.wait_for_name(caller)
        assert caller.call("check_server_availability") == FAILED
        assert proxy.count("login") == 1
        assert complaints(process)
        assert process.stop() == 0
        end = time.monotonic() + 10
        while caller.owner() is not None:
            assert time.monotonic() < end
            time.sleep(0.01)
    # The remaining file must not contain the PIN.
    left = [file.read_bytes() for file in (a_device.credentials.folder / "store").iterdir()]
    assert len(left) == 1 and b"wrong" not in left[0]

    pin_file.write_text(right)
    start_daemon(environment=proxy.environment).wait_for_name(caller)
    assert answers(caller) == all_alike(WORKS)
    assert proxy.count("login") == 2


@pytest.mark.parametrize("key", ["module", "token", "pin_file"])
def test_a_key_store_that_the_settings_name_later_is_not_used_before_the_next_start(
    service, caller, a_device, cold_store, tmp_path, key
):
    marker = tmp_path / "loaded"
    (tmp_path / "other.c").write_text(
        "#include <fcntl.h>\n__attribute__((constructor)) static void loaded(void)" f'{{ creat("{marker}", 0600); }}\n'
    )
    subprocess.run(["cc", "-shared", "-fPIC", "-o", tmp_path / "other.so", tmp_path / "other.c"], check=True)
    a_device.set("keystore", key, str(tmp_path / "other.so"))
    cold_store()
    assert caller.call("check_server_availability") == WORKS
    assert complaints(service) == [] and not marker.exists()


def test_what_the_module_reads_from_variables_may_stand_in_the_settings(needs_view, start_daemon, caller, a_device):
    for name, value in a_device.credentials.environment.items():
        a_device.set("keystore", "environment", f"{name}={value}")
    process = start_daemon(environment={"SOFTHSM2_CONF": "/nowhere"})
    process.wait_for_name(caller)
    assert caller.call("check_server_availability") == WORKS
    assert complaints(process) == []


PIN_FILES = {
    "missing": (lambda file: file.unlink(), "does not exist; it must be there and readable"),
    "empty": (lambda file: file.write_text("\n"), "is empty; put the PIN there"),
    "open to others": (lambda file: file.chmod(0o644), "is open to others; it is used after chmod"),
    "too large": (lambda file: file.write_text("1" * 5000), "is larger than 256 bytes"),
    "a folder": (lambda file: (file.unlink(), file.mkdir()), "is not a regular file"),
}


@pytest.mark.parametrize("fault", PIN_FILES)
def test_a_pin_file_of_no_use_is_named_and_mended_without_a_restart(
    needs_view, start_daemon, caller, store, a_device, proxy, fault
):
    spoil, said = PIN_FILES[fault]
    pin_file = a_device.credentials.folder / "pin"
    right = pin_file.read_text()
    spoil(pin_file)
    process = start_daemon(environment=proxy.environment)
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == FAILED

    assert store.requests == []
    assert proxy.count("login") == 0
    assert all(said in line and str(pin_file) in line for line in complaints(process))

    if pin_file.is_dir():
        pin_file.rmdir()
    pin_file.write_text(right)
    pin_file.chmod(0o600)
    assert caller.call("check_server_availability") == WORKS


@pytest.mark.parametrize("fault", ["ShortBlock", "WrongBlock"])
def test_a_short_or_wrong_block_of_the_token_is_never_sent(proxied, caller, store, proxy, fault):
    proxy.goes_wrong(fault)

    assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    assert proxy.count("sign") > len(EVERY_CALL)
    assert len([text for text in proxied.texts("E") if "gave a block that is short" in text]) == 5
    # No block was passed to TLS as a signature, so the server has seen none.
    assert not any("Return KeyStore result" in text for text in proxied.texts())
    assert not any("signature" in failure for failure in store.handshake_failures)

    proxy.goes_wrong("None")
    assert answers(caller) == all_alike(WORKS)


def test_a_token_without_raw_rsa_does_as_well(proxied, caller, store, proxy):
    proxy.goes_wrong("NoRawRsa")

    assert answers(caller) == all_alike(WORKS)

    assert {request.client for request in store.requests} == {DEVICE}


def test_a_token_with_one_try_left_for_its_pin_is_not_asked(needs_view, start_daemon, caller, store, proxy):
    proxy.goes_wrong("PinFinalTry")
    process = start_daemon(environment=proxy.environment)
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == FAILED
    assert proxy.count("login") == 0
    assert all("one more wrong PIN would lock it" in line for line in complaints(process))

    proxy.goes_wrong("None")
    assert caller.call("check_server_availability") == WORKS


def test_a_token_that_is_removed_in_the_middle_of_a_signature_works_at_the_next_call(proxied, caller, store, proxy):
    proxy.goes_wrong("Removed")
    assert caller.call("check_server_availability") == FAILED
    assert store.requests == []
    assert any("CKR_DEVICE_REMOVED; put the token back" in line for line in complaints(proxied))

    proxy.goes_wrong("None")
    assert answers(caller) == all_alike(WORKS)


def test_a_slow_token_delays_its_own_call_and_no_more(proxied, caller, store, proxy):
    proxy.goes_wrong("None", delay_ms=1500)

    begin = time.monotonic()
    assert caller.call("check_server_availability") == WORKS
    assert time.monotonic() - begin >= 1.5
    calls = [caller.start("get_product_list", f"app-{i}", "0", "check") for i in range(20)]
    caller.finish(calls)

    assert {call.result for call in calls} == {WORKS}
    assert signatures(proxied) == 1
    assert len(store.requests) == 21


def test_a_daemon_that_waits_for_a_slow_token_still_ends(proxied, caller, proxy):
    proxy.goes_wrong("None", delay_ms=3000)
    before = proxy.count("sign")
    caller.start("check_server_availability")
    proxied.wait_until(lambda: proxy.count("sign") > before, "it signs")

    assert proxied.stop(timeout=20) == 0


def test_a_hundred_cold_calls_cost_one_signature_and_ten_warm_ones_none(service, caller, store):
    caller.call("check_server_availability")
    signed = signatures(service)
    assert signed == 1

    calls = [caller.start("get_product_list", f"app-{i}", "0", "check") for i in range(100)]
    caller.finish(calls)
    for _ in range(10):
        assert caller.call("check_server_availability") == WORKS

    assert {call.result for call in calls} == {WORKS}
    assert signatures(service) == signed


def test_a_burst_to_a_cold_store_costs_one_signature(service, caller, cold_store):
    # The first transfer of a burst starts a second ahead. A busy machine may spoil one attempt; a fault fails all
    # three.
    costs = []
    while len(costs) < 3 and 1 not in costs:
        before = signatures(service)
        cold = cold_store()
        calls = [caller.start("get_product_list", f"app-{i}", "0", "check") for i in range(100)]
        caller.finish(calls)
        assert {call.result for call in calls} == {WORKS}
        assert len(cold.requests) == 100
        assert {request.client for request in cold.requests} == {DEVICE}
        costs.append(signatures(service) - before)
    print(f"signatures for a burst of 100 calls to a cold store: {costs}")
    assert 1 in costs


def contents(folder):
    return {path: path.read_bytes() for path in sorted(folder.rglob("*")) if path.is_file()}


def test_a_token_that_the_daemon_may_not_write_outlives_a_storm_of_kills(needs_view, start_daemon, caller, store, a_device):
    token = a_device.credentials.token
    before = contents(token)
    for path in [*token.rglob("*"), token]:
        path.chmod(0o500 if path.is_dir() else 0o400)
    choose = random.Random(8)

    for _ in range(40):
        process = start_daemon()
        time.sleep(choose.uniform(0, 0.06))
        process.kill()

    assert contents(token) == before
    # The name of the last killed daemon may stay on the bus for a moment.
    end = time.monotonic() + 10
    while caller.owner() is not None:
        assert time.monotonic() < end
        time.sleep(0.01)
    process = start_daemon()
    process.wait_for_name(caller)
    assert answers(caller) == all_alike(WORKS)
    assert signatures(process) == 1
    assert process.stop() == 0
    assert contents(token) == before
    os.chmod(token, 0o700)


def worker_stack(process):
    """Number of bytes of the connector worker's stack that were ever written to, in whole pages."""
    for task in os.listdir(f"/proc/{process.pid}/task"):
        with open(f"/proc/{process.pid}/task/{task}/syscall", encoding="ascii") as file:
            fields = file.read().split()
        pages = touched(process, int(fields[-2], 16)) if len(fields) > 2 else None
        if pages is not None:
            return pages
    raise AssertionError("no thread has a stack of 131072 bytes")


def touched(process, address):
    """Resident bytes of the mapping with this address, if the mapping has the size of the worker's stack."""
    with open(f"/proc/{process.pid}/smaps", encoding="utf-8") as file:
        inside = False
        for line in file:
            first = line.split()[0]
            if "-" in first and not first.endswith(":"):
                begin, end = (int(text, 16) for text in first.split("-"))
                inside = begin <= address < end and end - begin == 131072
            elif inside and first == "Rss:":
                return int(line.split()[1]) * 1024
    return None


if not daemon.is_sanitized():  # its runtime uses larger stacks

    def test_the_workers_stack_is_ample(service, caller, store, cold_store):
        answers(caller)
        cold = cold_store()
        answers(caller)
        try:
            used = worker_stack(service)
        except PermissionError:
            pytest.skip("only root may look into the daemon")
        print(f"stack of the worker: {used} of 131072 bytes were used")
        assert len(cold.requests) == 5
        assert used < 65536
