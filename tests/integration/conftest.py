"""The parts of a running system, one set for each test."""
import functools
import pathlib
import signal
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from harness import backend, certificates, credentials, daemon, device, nginx, ordinary, server  # noqa: E402
from harness.doctor import examine  # noqa: E402

from billing_lab import bus as message_bus  # noqa: E402
from billing_lab import view  # noqa: E402

# A shell ignores it in what it runs in the background, and a daemon would inherit that.
signal.signal(signal.SIGINT, signal.default_int_handler)

HOSTS = ("localhost", "production.localhost", "sandbox.localhost")
NO_VIEW = view.why_no_view()


@pytest.fixture(scope="session")
def authority():
    return certificates.Authority()


@pytest.fixture(scope="session")
def provisioned(tmp_path_factory):
    """A device's credentials. Not to be changed: each test's device has a copy."""
    return credentials.Credentials.make(tmp_path_factory.mktemp("device") / "lab")


@pytest.fixture(scope="session")
def server_context(authority, provisioned):
    """It demands the device's certificate, as the store does."""
    return authority.server_context(*HOSTS, clients=provisioned.authority)


@pytest.fixture
def needs_view():
    """The test's daemon must see a /opt of its own."""
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
    """A function that runs one more server, with another certificate or other wishes."""

    def make(context):
        running = server.StoreServer(context)
        request.addfinalizer(running.stop)
        return running

    return make


@pytest.fixture
def start_nginx(tmp_path, authority, provisioned, a_device, request):
    """A function that runs an nginx and has the device use it."""
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
    """What is sold behind the servers of start_server."""
    running = backend.Backend()
    request.addfinalizer(running.stop)
    return running


@pytest.fixture
def start_server(tmp_path, authority, provisioned, a_device, shop, request):
    """A function that runs a web server of some kind in front of the shop and has the device use it."""

    def make(kind, **options):
        made = ordinary.SERVERS[kind]
        if made.PROGRAM is None:
            pytest.skip(f"{kind} is not installed (scripts/setup)")
        # lighttpd looks for the certificate's issuer, and serves nobody without it.
        chain = authority.server_pem("localhost") + authority.pem
        folder = tmp_path / f"{kind}-{len(list(tmp_path.glob(f'{kind}-*')))}"
        running = made(folder, chain, provisioned.authority, shop.port, **options)
        request.addfinalizer(running.stop)
        a_device.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    return make


@pytest.fixture
def a_device(tmp_path, store, authority, provisioned):
    """A device that knows the store server and trusts it, and that the store server knows."""
    made = device.Device(
        tmp_path, provisioned.copy_to(tmp_path / "lab"), f"production.localhost:{store.port}", f"sandbox.localhost:{store.port}"
    )
    made.ca_file.write_bytes(authority.pem)
    return made


@pytest.fixture
def start_daemon(tmp_path, bus, a_device, request):
    """A function that starts a daemon on the bus. Those that still run at the end must end cleanly,
    whatever the test has done to them."""
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
    """Also when a test has failed, or the end of its daemon."""
    yield
    for process in getattr(request.node, "daemons", []):
        process.kill()


@pytest.fixture
def service(needs_view, start_daemon, caller):
    """The daemon, with its name owned and everything as it should be."""
    process = start_daemon()
    process.wait_for_name(caller)
    return process


@pytest.fixture
def doctor(needs_view, bus, a_device):
    """A function that runs the doctor where the daemon is."""
    return functools.partial(examine, bus, a_device)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failure shows what the daemons said."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for process in getattr(item, "daemons", []):
            text = process.log_text()
            report.sections.append((f"daemon {process.pid}", text[-20000:]))
