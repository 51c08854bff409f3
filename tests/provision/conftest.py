"""A lab device and a key."""

import pytest
from cryptography.hazmat.primitives.asymmetric import rsa

from tool import must, run


@pytest.fixture(name="lab")
def make_lab(tmp_path):
    folder = tmp_path / "lab"
    must(run("lab", folder))
    return folder


@pytest.fixture(name="key")
def make_key():
    return rsa.generate_private_key(65537, 2048)
