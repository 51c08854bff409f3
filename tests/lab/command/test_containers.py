"""A lab where namespaces cannot be created, as in an ordinary container."""
import subprocess

import pytest

# Enters a user namespace in which no further namespace can be created and root has no capabilities.
WITHOUT_RIGHTS = [
    "unshare",
    "--user",
    "--map-root-user",
    "sh",
    "-ec",
    'echo 0 >/proc/sys/user/max_user_namespaces && exec setpriv --bounding-set=-all --inh-caps=-all "$@"',
    "sh",
]


@pytest.fixture
def container(needs_view):
    """A command prefix that removes these rights."""
    tried = subprocess.run([*WITHOUT_RIGHTS, "true"], capture_output=True, text=True, check=False)
    if tried.returncode != 0:
        pytest.skip(f"no user namespace can be had to take rights away in: {tried.stderr}")
    return WITHOUT_RIGHTS


def test_one_line_names_the_way(container, cli):
    done = cli("up", before=container)
    assert done.returncode == 1
    (line,) = done.stderr.splitlines()
    assert "max_user_namespaces=10000" in line
    assert "--cap-add SYS_ADMIN --security-opt seccomp=unconfined" in line
