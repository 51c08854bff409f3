"""Who may own the service's name and who may call it, with the installed policy and real users."""
import json
import pathlib
import shutil
import subprocess
import sys
import time

import pytest
from gi.repository import Gio, GLib

from billing_lab.device import bus as message_bus
from installation import PolicyBus

ANSWERED, DENIED = "answered", "org.freedesktop.DBus.Error.AccessDenied"
METHODS = ["get_product_list", "get_purchase_history", "get_applied_time", "confirm_purchase", "check_server_availability"]
ALLOWED = {
    **dict.fromkeys([*METHODS, "by its unique name", "Introspect", "Introspect of the root", "Ping"], ANSWERED),
    "a method that is none": "org.freedesktop.DBus.Error.UnknownMethod",
}
REFUSED = [
    "at another path",
    "without an interface",
    "Properties",
    "another interface",
    "own its name",
    "own a name below it",
    "Ping of a client",
    "introspection of a client",
    "GetConnectionStats",
    "GetAllMatchRules",
]
TO_A_MEMBER = {**ALLOWED, **dict.fromkeys(REFUSED, DENIED)}
TO_OTHERS = dict.fromkeys(TO_A_MEMBER, DENIED)
# RequestName answers that another connection owns the name.
# The service may ask what a caller has not read. A rule that refuses calls of its own name would also affect the
# doctor, which runs as this user.
TO_THE_SERVICE = {
    **TO_OTHERS,
    "own its name": ANSWERED,
    "Ping": ANSWERED,
    "Ping of a client": ANSWERED,
    "GetConnectionStats": ANSWERED,
}


@pytest.fixture
def ask(folder, policy_bus, accounts):
    """A function that makes every kind of call as a user."""
    script = folder / "ask.py"
    shutil.copy(pathlib.Path(__file__).with_name("ask.py"), script)

    def asked(who, owner):
        done = subprocess.run(
            [*accounts.run_as(who), sys.executable, script, policy_bus.address, owner],
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
        )
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)

    return asked


@pytest.mark.parametrize(
    "who, expected",
    [
        ("member", TO_A_MEMBER),
        ("main member", TO_A_MEMBER),
        ("stranger", TO_OTHERS),
        ("root", TO_OTHERS),
        ("service", TO_THE_SERVICE),
    ],
)
def test_each_user_may_do_what_the_policy_says_and_nothing_else(who, expected, ask, policy_bus, run_service):
    run_service(policy_bus.address)
    caller = message_bus.Caller(policy_bus.address)
    owner = caller.owner()
    caller.close()
    assert ask(who, owner) == expected


@pytest.mark.parametrize("who", ["member", "stranger", "root"])
def test_nobody_else_may_be_the_service_when_it_is_not_there(who, ask):
    assert ask(who, ":1.9999")["own its name"] == DENIED


@pytest.fixture
def managed_bus(folder, installed, accounts):
    """A bus that starts services by a service manager; the test acts as the manager."""
    running = PolicyBus(folder, installed, accounts, names=["org.freedesktop.systemd1"], arguments=["--systemd-activation"])
    yield running
    running.stop()


@pytest.fixture
def started_units(managed_bus):
    """The units that the bus has asked its service manager to start."""
    told = []
    manager = message_bus.Caller(managed_bus.address)
    manager.connection.signal_subscribe(
        None,
        "org.freedesktop.systemd1.Activator",
        "ActivationRequest",
        None,
        None,
        Gio.DBusSignalFlags.NONE,
        lambda *signal: told.append(signal[5].unpack()[0]),
    )
    manager.connection.call_sync(
        "org.freedesktop.DBus",
        "/org/freedesktop/DBus",
        "org.freedesktop.DBus",
        "RequestName",
        GLib.Variant("(su)", ("org.freedesktop.systemd1", 4)),
        None,
        Gio.DBusCallFlags.NONE,
        10000,
        None,
    )
    yield told
    manager.close()


@pytest.mark.parametrize(
    "who, units, error", [("member", ["billing-service.service"], "NoReply"), ("stranger", [], "AccessDenied")]
)
def test_the_first_call_starts_the_unit_if_the_caller_may_call(who, units, error, managed_bus, started_units, accounts):
    call = subprocess.Popen(
        [
            *accounts.run_as(who),
            "dbus-send",
            f"--bus={managed_bus.address}",
            "--print-reply",
            "--reply-timeout=3000",
            f"--dest={message_bus.SERVICE}",
            message_bus.OBJECT,
            f"{message_bus.SERVICE}.check_server_availability",
        ],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    )
    while call.poll() is None:
        GLib.MainContext.default().iteration(False)
        time.sleep(0.01)
    assert started_units == units
    # The unit does not start here, so a permitted call gets no answer.
    assert f"org.freedesktop.DBus.Error.{error}" in call.stderr.read()
    call.stderr.close()
