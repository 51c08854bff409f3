"""The call samples and the sample test, run in the way of an app team."""
import os
import subprocess
import sys

import pytest
from billing_lab.device import tools

from conftest import LAB

PYTHON = (sys.executable, LAB / "samples" / "purchases.py")
CPP = (tools.service().parents[1] / "lab" / "samples" / "sample-purchases",)

pytestmark = pytest.mark.usefixtures("needs_view")


@pytest.fixture
def run(tmp_path):
    def with_notes(sample, app, **environment):
        return start(sample, app, tmp_path / "notes", **environment)

    return with_notes


def start(sample, *arguments, **environment):
    done = subprocess.run(
        [*sample, *arguments], env={**os.environ, **environment}, timeout=60, capture_output=True, text=True, check=False
    )
    return done.returncode, done.stdout, done.stderr


@pytest.fixture(params=[PYTHON, CPP], ids=["python", "c++"])
def sample(request):
    return request.param


def test_a_sample_delivers_each_purchase_once(lab, sample, run):
    name = lab.buy("coins-100")["id"]
    assert run(sample, "app-1") == (0, f"{name} coins-100 delivered\nINV-SEED-2 season delivered\n", "")
    assert run(sample, "app-1") == (0, "", "")
    assert {invoice["status"] for invoice in lab.invoices()} == {"confirmed"}


def test_a_sample_loses_no_purchase_behind_twenty_later_ones(lab, sample, run):
    first = lab.buy("coins-100")["id"]
    lab.fault("status", endpoint="apply")
    assert f"{first} coins-100 later" in run(sample, "app-1")[1]
    lab.clear_faults()
    for _ in range(20):
        lab.refund(lab.buy("coins-100")["id"])
    assert f"{first} coins-100 delivered" in run(sample, "app-1")[1]


@pytest.mark.parametrize(
    "kind, said",
    [
        ("status", "a fault of the lab"),
        ("malformed", "the store's answer cannot be read"),
        ("reset", "the connection to the store failed"),
    ],
)
def test_a_sample_delivers_later_what_a_fault_prevented(lab, sample, run, kind, said):
    lab.fault(kind, endpoint="confirm", done=True)
    assert run(sample, "app-1") == (1, f"INV-SEED-2 season later: {said}\n", "")
    lab.clear_faults()
    # The store had confirmed it. The sample sees that in the history and delivers nothing twice.
    assert run(sample, "app-1") == (0, "", "")


def test_a_sample_says_when_there_is_no_network_or_no_service(lab, sample, run):
    lab.device("gateway", "down")
    assert run(sample, "app-1") == (1, "later: Network error, please check!\n", "")
    code, _, said = run(sample, "app-1", DBUS_SYSTEM_BUS_ADDRESS="unix:path=/none")
    assert (code, said.startswith("the billing service cannot be reached: ")) == (1, True)


def test_a_sample_without_an_app_says_how_to_use_it(sample):
    code, _, said = start(sample)
    assert (code, "usage: purchases" in said) == (2, True)


def test_the_sample_tests_pass_with_a_catalogue_of_their_own(lab):
    done = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "."],
        cwd=LAB / "samples",
        env={**os.environ, "PYTHONPATH": str(LAB)},
        timeout=120,
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.returncode == 0 and "2 passed" in done.stdout, done.stdout + done.stderr
