"""Environment variables that libraries read do not change the daemon's behaviour."""
import os
import socket

from harness.device.device import TOKEN


def test_a_proxy_in_the_environment_is_not_asked(needs_view, start_daemon, caller, store):
    with socket.create_server(("127.0.0.1", 0)) as proxy:
        address = f"http://127.0.0.1:{proxy.getsockname()[1]}"
        process = start_daemon(
            environment={name: address for name in ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY")}
        )
        process.wait_for_name(caller)

        assert caller.call("check_server_availability") == (0, "{}")

        proxy.setblocking(False)
        try:
            proxy.accept()
        except BlockingIOError:
            return
        raise AssertionError("somebody has asked the proxy")


def test_tls_secrets_are_not_written_to_a_file(needs_view, start_daemon, caller, store, tmp_path):
    keys = tmp_path / "keys"
    process = start_daemon(environment={"SSLKEYLOGFILE": str(keys)})
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == (0, "{}")

    assert not keys.exists()


def test_credentials_of_a_netrc_are_not_sent(needs_view, start_daemon, caller, store, tmp_path):
    (tmp_path / ".netrc").write_text("default login somebody password secret\n")
    process = start_daemon(environment={"HOME": str(tmp_path), "CURL_HOME": str(tmp_path)})
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == (0, "{}")

    assert not any(line.startswith("Authorization") for line in store.requests[0].headers)


def test_it_writes_no_file(needs_view, start_daemon, caller, store, tmp_path):
    # The daemon's umask is 0, so every user could write a file that it makes.
    process = start_daemon(environment={"HOME": str(tmp_path), "TMPDIR": str(tmp_path), "XDG_CACHE_HOME": str(tmp_path)})
    process.wait_for_name(caller)
    before = {os.path.join(folder, name) for folder, _, names in os.walk(tmp_path) for name in names}

    assert caller.call("confirm_purchase", "a", "c", "i", "0") == (0, "{}")
    assert process.stop() == 0

    after = {os.path.join(folder, name) for folder, _, names in os.walk(tmp_path) for name in names}
    assert after == before
    assert TOKEN in store.requests[0].raw.decode()
