"""Sample tests of an app. Run them with `PYTHONPATH=lab python3 -m pytest lab/samples`."""
import pathlib
import subprocess
import sys

import pytest

APP = pathlib.Path(__file__).with_name("purchases.py")


@pytest.fixture
def deliver(tmp_path):
    """@return a function that runs the app, with the lab's bus in its environment, and returns its output"""

    def run():
        return subprocess.run(
            [sys.executable, APP, "shop", tmp_path / "notes"], capture_output=True, text=True, check=False
        ).stdout

    return run


def test_a_lamp_is_delivered_once(billing_lab_verified, deliver):
    invoice = billing_lab_verified.buy("lamp")["id"]
    assert deliver() == f"{invoice} lamp delivered\n"
    assert deliver() == ""
    billing_lab_verified.assert_asked("confirm", invoice=invoice, times=1)


def test_a_lamp_whose_confirmation_fails_is_delivered_later(billing_lab, deliver):
    invoice = billing_lab.buy("lamp")["id"]
    billing_lab.fault("status", code=503, endpoint="confirm", count=1)
    assert deliver() == f"{invoice} lamp later: a fault of the lab\n"
    assert deliver() == f"{invoice} lamp delivered\n"
