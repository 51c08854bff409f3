"""billingctl on the real daemon: answers, exit codes, the doctor's findings, and what is watched."""
import json
import os
import pty
import subprocess

import pytest
from harness import certificates, credentials, daemon, server
from harness.methods import EVERY_CALL

DONE, FAILED, USAGE, TRANSFER, REFUSED, UNREACHABLE = range(6)
ARGUMENTS = {"--appid": "app-1", "--invoiceid": "invoice-1", "--custom-id": "custom-1",
             "--check-value": "check-1", "--server-type": "1", "--item-type": "2",
             "--page-number": "5"}
OPTIONS = {
    "get_product_list": ("--appid", "--server-type", "--check-value"),
    "get_purchase_history": ("--appid", "--custom-id", "--item-type", "--page-number",
                             "--check-value", "--server-type"),
    "get_applied_time": ("--appid", "--custom-id", "--invoiceid", "--server-type"),
    "confirm_purchase": ("--appid", "--custom-id", "--invoiceid", "--server-type"),
    "check_server_availability": (),
}


def program():
    return daemon.binary().parents[1] / "client" / "billingctl"


def environment(bus):
    return {"PATH": "/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS": bus.address, **daemon.SANITIZERS}


@pytest.fixture
def ctl(bus):
    """A function that runs billingctl."""
    def run(*arguments, **variables):
        return subprocess.run([program(), *arguments], capture_output=True, text=True, check=False,
                              timeout=120, env={**environment(bus), **variables})
    return run


def options_of(method):
    return [part for option in OPTIONS[method] for part in (option, ARGUMENTS[option])]


@pytest.mark.parametrize("method", EVERY_CALL)
def test_each_method_is_called_with_its_arguments_in_their_places(service, ctl, caller, store,
                                                                  method):
    values = [ARGUMENTS[option] for option in OPTIONS[method]]
    caller.call(method, *values)

    done = ctl(method.replace("_", "-"), *options_of(method), "--json")

    assert (done.returncode, done.stderr) == (DONE, "")
    answer = json.loads(done.stdout)
    assert {key: answer[key] for key in ("method", "resp_result", "resp_info")} == {
        "method": method, "resp_result": 0, "resp_info": "{}"}
    assert 0 < answer["milliseconds"] < 60000
    first, second = store.requests
    assert first.raw == second.raw


def test_people_get_the_body_indented_and_unaltered(service, ctl, store):
    store.answer.body = b'{"price":1.10,"big":12345678901234567890,"none":[],"text":"a\\u0041,:{"}'

    done = ctl("check_server_availability")

    assert done.returncode == DONE
    assert done.stdout == ('{\n  "price": 1.10,\n  "big": 12345678901234567890,\n  "none": [],\n'
                           '  "text": "a\\u0041,:{"\n}\n')
    assert done.stderr.startswith("check_server_availability: resp_result 0, the server answered (")


def test_raw_is_the_body_and_nothing_else(service, ctl, store):
    store.answer.body = b"no JSON \x1b[31m"
    done = ctl("check-server-availability", "--raw")
    assert (done.returncode, done.stdout) == (DONE, "no JSON \x1b[31m")


def on_a_terminal(command, variables):
    """What a terminal would be sent."""
    ours, theirs = pty.openpty()
    process = subprocess.Popen(command, stdout=theirs, stderr=theirs, env=variables)
    os.close(theirs)
    text = b""
    try:
        while part := os.read(ours, 4096):
            text += part
    except OSError:
        pass  # that is how the end looks
    process.wait()
    os.close(ours)
    return text.decode().replace("\r\n", "\n")


def test_a_hostile_body_cannot_steer_the_terminal(service, bus, store):
    store.answer.body = "\x1b]0;title\x07 \u202e evil \u0085 Grüße\n".encode()
    text = on_a_terminal([program(), "check-server-availability"],
                         {**environment(bus), "NO_COLOR": "1"})
    assert "\\x1b]0;title\\x07 \\u{202e} evil \\u{85} Grüße" in text
    assert "\x1b" not in text


def test_colours_are_for_terminals_that_want_them(service, bus, ctl, store):
    command = [program(), "check-server-availability"]
    assert "\x1b[32m" in on_a_terminal(command, environment(bus))
    assert "\x1b" not in on_a_terminal(command, {**environment(bus), "NO_COLOR": "1"})
    assert "\x1b" not in ctl("check-server-availability").stderr


def test_a_failed_transfer_has_its_exit_code(service, ctl, store):
    store.answer = server.Reset()
    done = ctl("check-server-availability")
    assert (done.returncode, done.stdout) == (TRANSFER, "")
    assert "resp_result -1, the transfer failed; billingctl doctor" in done.stderr


def test_a_refusal_has_its_exit_code(service, ctl, a_device):
    a_device.set("network", "default_gateway", "down")
    done = ctl("check-server-availability")
    assert (done.returncode, done.stdout) == (REFUSED, "Network error, please check!\n")


def test_an_answer_is_waited_for_no_longer_than_asked(service, ctl, store):
    store.answer = server.Hang()
    done = ctl("--timeout", "0.3", "--json", "check-server-availability")
    assert done.returncode == UNREACHABLE
    assert json.loads(done.stdout) == {
        "method": "check_server_availability",
        "error": {"cause": "the service did not answer within 0.3 s",
                  "cure": "a transfer may take 90 s: wait longer with --timeout, and look at its "
                          "log"}}


def test_a_bus_or_a_service_that_is_not_there_is_named(ctl):
    done = ctl("check-server-availability")
    assert done.returncode == UNREACHABLE
    assert done.stderr == (
        "check_server_availability: no answer: nobody owns the name org.plevo.billingservice on "
        "the bus; start the service (systemctl start billing-service) and look at its log\n")
    done = ctl("--bus", "unix:path=/nowhere", "check-server-availability")
    assert done.returncode == UNREACHABLE
    assert "the system bus cannot be reached: " in done.stderr
    assert "start the message bus, or name another one" in done.stderr


@pytest.mark.parametrize("arguments, said", [
    ((), "A subcommand is required"),
    (("buy",), "A subcommand is required"),
    (("get-product-list",), "--appid is required"),
    (("check-server-availability", "--timeout", "0"), "not in range"),
    (("get-product-list", "--appid", b"\xff"), "is not UTF-8"),
])
def test_wrong_arguments_are_named(ctl, arguments, said):
    done = ctl(*arguments)
    assert done.returncode == USAGE
    assert said in done.stderr
    assert done.stdout == ""


def test_the_version_names_the_libraries(ctl):
    done = ctl("--version")
    assert done.returncode == DONE
    assert [line.split(" ")[0] for line in done.stdout.splitlines()] == [
        "billingctl", "GLib", "libcurl", "OpenSSL", "jsoncpp"]


# --- doctor ---

CHECKS = ["settings", "certificate", "CA bundle", "clock", "token", "key", "route", "name lookup",
          "TCP", "TLS", "HTTP", "bus", "name", "call"]


@pytest.fixture
def doctor(needs_view, bus, a_device):
    """A function that runs the doctor where the daemon is, and gives its findings by check."""
    def run(*arguments, address=None):
        view = daemon.bubblewrap(a_device.certificates, a_device.credentials.certificates)
        done = subprocess.run(
            [*view, program(), "doctor", "--json", "--timeout", "5", *arguments],
            capture_output=True, text=True, check=False, timeout=120,
            env={**environment(bus), "PLEVO_DEVICE_CONF": str(a_device.file),
                 **a_device.credentials.environment,
                 **({"DBUS_SYSTEM_BUS_ADDRESS": address} if address else {})})
        report = json.loads(done.stdout)
        found = {check["check"]: check for check in report["checks"]}
        failed = [check for check in found if found[check]["outcome"] == "failed"]
        assert done.returncode == (FAILED if failed else DONE)
        assert report["failed"] == len(failed)
        assert all(found[check]["finding"] and found[check]["cure"] for check in failed)
        return found, failed
    return run


def test_nothing_fails_on_a_device_that_works(service, doctor):
    found, failed = doctor("--sign")
    assert list(found) == CHECKS
    assert failed == []
    assert {check for check in found if found[check]["outcome"] == "not checked"} == {"HTTP"}
    assert "demands the device's certificate" in found["HTTP"]["finding"]
    assert found["key"]["finding"] == "one signature, and the certificate confirms it"
    # Which program that is only root may see, and there is no root in this view.
    assert f"(process {service.pid}, user " in found["name"]["finding"]


def test_the_key_is_used_only_when_asked_for(service, doctor):
    found, failed = doctor()
    assert failed == []
    assert found["key"]["outcome"] == "not checked"


def no_settings(device, _authority):
    device.write_file("[network\n")


def no_certificate(device, _authority):
    device.credentials.certificate.unlink()


def no_certificate_in_the_file(device, _authority):
    device.credentials.certificate.write_text("nothing\n")


def no_bundle(device, _authority):
    device.ca_file.unlink()


def empty_bundle(device, _authority):
    device.ca_file.write_text("")


def other_bundle(device, _authority):
    device.ca_file.write_bytes(certificates.Authority().pem)


def another_token(device, _authority):
    device.set("keystore", "token", "other")


def another_pin(device, _authority):
    (device.credentials.folder / "pin").write_text("wrong")


def no_route(device, _authority):
    device.set("network", "default_gateway", "down")


def no_host(device, _authority):
    device.set("deployment", "production_host", None)


def unknown_host(device, _authority):
    device.set("deployment", "production_host", "store.invalid")


def no_server(device, _authority):
    device.set("deployment", "production_host", "localhost:1")


@pytest.mark.parametrize("break_it, check, cause", [
    (no_settings, "settings", "line 1"),
    (no_certificate, "certificate", "bgclient.crt: No such file or directory"),
    (no_certificate_in_the_file, "certificate", "holds no PEM certificate"),
    (no_bundle, "CA bundle", "ca.pem: No such file or directory"),
    (empty_bundle, "CA bundle", "holds no PEM certificate"),
    (other_bundle, "TLS", "certificate"),
    (another_token, "token", 'there is no token "other"'),
    (another_pin, "key", "CKR_PIN_INCORRECT"),
    (no_route, "route", "there is no default route"),
    (no_host, "name lookup", "[deployment] production_host is not set"),
    (unknown_host, "name lookup", "store.invalid"),
    (no_server, "TCP", "localhost port 1"),
])
def test_what_is_wrong_is_the_first_check_that_fails(service, doctor, a_device, authority, break_it,
                                                     check, cause):
    break_it(a_device, authority)
    found, failed = doctor("--sign")
    assert failed[0] == check
    assert cause in found[check]["finding"]


def test_a_clock_before_the_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(credentials.A_DAY, 2 * credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "clock"
    assert "before the device's certificate is valid" in found["clock"]["finding"]


def test_an_expired_certificate_is_named(service, doctor, a_device):
    a_device.credentials.reissue(-2 * credentials.A_DAY, -credentials.A_DAY)
    found, failed = doctor()
    assert failed[0] == "certificate"
    assert "has expired: valid from" in found["certificate"]["finding"]


def test_a_key_of_another_certificate_is_found_out(service, doctor, a_device, tmp_path):
    key = tmp_path / "other.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=other",
                    "-keyout", key, "-out", a_device.credentials.certificate], check=True,
                   capture_output=True)
    found, failed = doctor("--sign")
    assert failed[0] == "key"
    assert found["key"]["finding"] == "the token's key is not the certificate's"


def test_a_service_that_does_not_run_is_found_out(doctor):
    found, failed = doctor()
    assert failed == ["name", "call"]
    assert found["name"]["finding"] == "nobody owns the name org.plevo.billingservice"


def test_a_bus_that_is_not_there_is_found_out(doctor):
    found, failed = doctor(address="unix:path=/nowhere")
    assert failed == ["bus"]
    assert [found[check]["outcome"] for check in ("name", "call")] == ["not checked"] * 2


def test_the_doctor_speaks_to_people_too(ctl, tmp_path):
    done = ctl("doctor", PLEVO_DEVICE_CONF=str(tmp_path / "none"))
    assert done.returncode == FAILED
    lines = done.stdout.splitlines()
    assert lines[0].startswith("failed       settings     ")
    assert lines[1].strip().startswith("cure: mend the file")
    assert lines[-1].endswith(" checks failed")


# --- monitor ---

@pytest.fixture
def watch(bus, request):
    """A function that starts a monitor, which then watches."""
    def start(*arguments):
        process = subprocess.Popen([program(), "monitor", *arguments], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=environment(bus))
        request.addfinalizer(process.communicate)
        request.addfinalizer(process.kill)
        assert process.stderr.readline().startswith("Watching ")
        return process
    return start


def test_calls_are_watched_without_their_private_values(service, caller, store, watch):
    watching = watch()
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "check-1")
    asked, answered = (watching.stdout.readline().rstrip("\n") for _ in range(2))
    assert asked.endswith("-> get_product_list(...)")
    assert "<- get_product_list resp_result 0, 13 bytes (" in answered


def test_calls_are_watched_whole_when_asked_for(service, caller, store, watch):
    watching = watch("--json", "--show-private")
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "check-1")
    asked, answered = (json.loads(watching.stdout.readline()) for _ in range(2))
    assert asked["arguments"] == "('app-1', '0', 'check-1')"
    assert answered["resp_info"] == '{"secret": 1}'
    assert asked["serial"] == answered["serial"]
    assert answered["milliseconds"] > 0


def test_the_end_of_the_bus_ends_the_watching(bus, watch):
    watching = watch()
    bus.kill()
    assert watching.wait(20) == UNREACHABLE
    assert "the bus has closed the connection; start it again" in watching.stderr.read()


# --- completion and manual ---

def words_of_help(ctl, *arguments):
    return {word.split("[")[0].rstrip(",") for word in ctl(*arguments, "--help").stdout.split()}


def test_completion_and_manual_name_every_command_and_option(ctl):
    completion = (daemon.TREE / "data" / "completions" / "billingctl").read_text()
    manual = (daemon.TREE / "data" / "man" / "billingctl.1").read_text().replace("\\-", "-")
    commands = [method.replace("_", "-") for method in EVERY_CALL] + ["doctor", "monitor"]
    wanted = set(commands)
    for command in commands:
        wanted |= {word for word in words_of_help(ctl, command) if word.startswith("--")}
    wanted |= {word for word in words_of_help(ctl) if word.startswith("--")}
    wanted = {word.split(",")[-1] for word in wanted}
    assert {word for word in wanted if word not in completion} == set()
    assert {word for word in wanted if word not in manual} == set()
