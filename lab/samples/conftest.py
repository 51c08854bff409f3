"""Gives an app's tests the lab's fixtures and the app's own catalogue."""
import pathlib

import pytest

pytest_plugins = ["billing_lab.pytest_plugin"]


@pytest.fixture(scope="session")
def billing_lab_catalogue():
    return pathlib.Path(__file__).with_name("shop.json")
