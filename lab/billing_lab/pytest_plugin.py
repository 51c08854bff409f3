"""Fixtures for an app's own tests. Switch them on with `pytest_plugins = ["billing_lab.pytest_plugin"]`.

    def test_my_shop(billing_lab):
        invoice = billing_lab.buy("coins-100")
        billing_lab.fault("reset", endpoint="confirm", count=1)
        assert billing_lab.call("confirm_purchase", invoiceid=invoice["id"]) == (-1, "")
"""
import os
import pathlib
from collections.abc import Iterator

import pytest

from . import client

_DEFAULT_CATALOGUE = pathlib.Path(__file__).with_name("catalogue.json")


@pytest.fixture(scope="session")
def billing_lab_catalogue() -> pathlib.Path:
    """The catalogue that every test begins with. Override it with a path of your own."""
    return _DEFAULT_CATALOGUE


@pytest.fixture(scope="session")
def billing_lab_running(tmp_path_factory) -> Iterator[client.Lab]:
    """One lab for all tests of the session. It ends with the session, even if pytest is killed."""
    with client.running(tmp_path_factory.mktemp("billing-lab")) as lab:
        yield lab


@pytest.fixture
def billing_lab(billing_lab_running, billing_lab_catalogue, monkeypatch) -> client.Lab:
    """The lab in its state after `seed`: without purchases, faults or journal entries of another test. Programs that the
    test starts find the lab's bus in DBUS_SYSTEM_BUS_ADDRESS."""
    billing_lab_running.seed(billing_lab_catalogue)
    billing_lab_running.reset()
    monkeypatch.setitem(os.environ, "DBUS_SYSTEM_BUS_ADDRESS", billing_lab_running.bus)
    return billing_lab_running


@pytest.fixture
def billing_lab_verified(billing_lab) -> Iterator[client.Lab]:
    """The lab of `billing_lab`. The test fails at its end if the app has broken a usual rule or an expectation."""
    __tracebackhide__ = True
    yield billing_lab
    billing_lab.assert_verified()
