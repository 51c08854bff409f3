"""Fixtures of the integration tests: the parts of a running system, one set for each test."""
import functools
import pathlib
import signal
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from harness import daemon  # noqa: E402
from harness.device import certificates, credentials, device  # noqa: E402
from harness.store import backend, nginx, ordinary, server  # noqa: E402
from harness.tools.doctor import examine  # noqa: E402

from billing_lab.device import bus as message_bus  # noqa: E402
from billing_lab.device import view  # noqa: E402

# A shell starts background jobs with SIGINT ignored, and a daemon would inherit that.
signal.signal(signal.SIGINT, signal.default_int_handler)

HOSTS = ("localhost", "production.localhost", "sandbox.localhost")
NO_VIEW = view.why_no_view()


def pytest_collection_modifyitems(items):
    """The longest file begins first: with several processes it would otherwise run alone at the end."""
    items.sort(key=lambda item: item.path.name != "test_ordinary_servers.py")


@pytest.fixture(scope="session")
def authority():
    return certificates.Authority()


@pytest.fixture(scope="session")
def provisioned(tmp_path_factory):
    """Credentials of a device. Read-only: each test's device gets a copy."""
    return credentials.Credentials.make(tmp_path_factory.mktemp("device") / "lab")


@pytest.fixture(scope="session")
def server_context(authority, provisioned):
    """TLS context of a server that demands the device's certificate, like the store."""
    return authority.server_context(*HOSTS, clients=provisioned.authority)


@pytest.fixture
def needs_view():
    """Skips where the test's daemon cannot have its own view of /opt."""
    if NO_VIEW is not None:
        pytest.skip(NO_VIEW)


@pytest.fixture
def bus(tmp_path):
    running = message_bus.Bus(tmp_path)
    yield running
    running.stop()


@pytest.fixture
def callers(bus):
    """A function that makes another connection to the bus."""
    made = []

    def make():
        made.append(message_bus.Caller(bus.address))
        return made[-1]

    yield make
    for caller in made:
        if not caller.connection.is_closed():
            caller.close()


@pytest.fixture
def caller(callers):
    return callers()


@pytest.fixture
def store(server_context):
    running = server.StoreServer(server_context)
    yield running
    running.stop()


@pytest.fixture
def other_store(request):
    """A function that runs one more server, with a TLS context of its own."""

    def make(context):
        running = server.StoreServer(context)
        request.addfinalizer(running.stop)
        return running

    return make


@pytest.fixture
def start_nginx(tmp_path, authority, provisioned, a_device, request):
    """A function that runs nginx and sets it as the device's store."""
    if nginx.PROGRAM is None:
        pytest.skip("nginx is not installed (apt install nginx-light)")

    def make(pem=None, **options):
        running = nginx.Nginx(tmp_path / "nginx", pem or authority.server_pem("localhost"), provisioned.authority, **options)
        request.addfinalizer(running.stop)
        a_device.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    return make


@pytest.fixture
def shop(request):
    """The application behind the servers of start_server. It counts the requests for each invoice."""
    running = backend.Backend()
    request.addfinalizer(running.stop)
    return running


@pytest.fixture
def start_server(tmp_path, authority, provisioned, a_device, shop, request):
    """A function that runs a web server of a given kind in front of the shop and sets it as the device's store."""

    def make(kind, **options):
        made = ordinary.SERVERS[kind]
        if made.PROGRAM is None:
            pytest.skip(f"{kind} is not installed (scripts/setup)")
        # lighttpd needs the issuer of its certificate in the file; without it no handshake succeeds.
        chain = authority.server_pem("localhost") + authority.pem
        folder = tmp_path / f"{kind}-{len(list(tmp_path.glob(f'{kind}-*')))}"
        running = made(folder, chain, provisioned.authority, shop.port, **options)
        request.addfinalizer(running.stop)
        a_device.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    return make


@pytest.fixture
def a_device(tmp_path, store, authority, provisioned):
    """A device that knows and trusts the store server, and whose certificate the store server trusts."""
    made = device.Device(
        tmp_path, provisioned.copy_to(tmp_path / "lab"), f"production.localhost:{store.port}", f"sandbox.localhost:{store.port}"
    )
    made.ca_file.write_bytes(authority.pem)
    return made


@pytest.fixture
def start_daemon(tmp_path, bus, a_device, other_store, request):
    """A function that starts a daemon on the bus. Daemons that still run at the end of the test must stop with exit
    status 0.

    They stop before the stores do: the end of a store ends its calls, and a result in the moment of SIGTERM has no reader. Its
    message would then be reported as a leak.
    """
    started = []
    request.node.daemons = started

    def start(**options):
        started.append(daemon.Daemon(tmp_path, bus.address, a_device, **options))
        return started[-1]

    yield start
    statuses = {process.pid: process.stop() for process in started if process.is_running()}
    assert set(statuses.values()) <= {0}, statuses
    assert not any("Sanitizer" in process.log_text() for process in started)


@pytest.fixture(autouse=True)
def nothing_is_left(request):
    """Kills the remaining daemons, also after a failure of the test or of another fixture."""
    yield
    for process in getattr(request.node, "daemons", []):
        process.kill()


@pytest.fixture
def service(needs_view, start_daemon, caller):
    """A daemon that owns its bus name, on a device where everything is in order."""
    process = start_daemon()
    process.wait_for_name(caller)
    return process


@pytest.fixture
def doctor(needs_view, bus, a_device):
    """A function that runs the doctor in the daemon's environment."""
    return functools.partial(examine, bus, a_device)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Adds to the report of a failed test the daemons' threads, warnings and errors, and the ends of their logs."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for process in getattr(item, "daemons", []):
            text = process.log_text()
            faults = dict.fromkeys(line for line in text.splitlines() if line.startswith(("E/", "W/")))
            report.sections.append((f"daemon {process.pid}", "\n".join([*process.threads(), *faults])[-10000:]))
            report.sections.append((f"log of daemon {process.pid}", text[-20000:]))
