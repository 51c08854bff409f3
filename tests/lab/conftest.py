"""A store server in the test's process with its clients, and whole labs."""
import asyncio
import contextlib
import http.client
import json
import os
import pathlib
import shutil
import socket
import ssl
import subprocess
import sys
import threading

import pytest
import trustme
from gi.repository import Gio, GLib

LAB = pathlib.Path(__file__).resolve().parents[2] / "lab"
sys.path.insert(0, str(LAB))

from billing_lab.device import view  # noqa: E402
from billing_lab.server import connections, simulator, tls  # noqa: E402
from billing_lab.shop import catalogue, state  # noqa: E402

HOST = "production.localhost"
TOKEN, DUID, GUID, UID = "token-1", "duid-1", "lab-guid", "lab@example.org"


class RunningStore:
    """A simulator in a thread of its own."""

    def __init__(self, folder, certificates):
        self.folder = folder
        shutil.copytree(certificates, folder, dirs_exist_ok=True)
        listener = connections.listen()
        self.port = listener.getsockname()[1]
        self.device = {
            "host": f"{HOST}:{self.port}",
            "token": TOKEN,
            "duid": DUID,
            "guid": GUID,
            "uid": UID,
            "country": "US",
            "locale": "en_US.utf8",
            "certificate": tls.fingerprint(folder / "client.pem"),
        }
        self.told, self.events = [], []
        ready = threading.Event()
        self._thread = threading.Thread(target=lambda: asyncio.run(self._run(listener, ready)))
        self._thread.start()
        assert ready.wait(10)

    async def _run(self, listener, ready):
        self._loop = asyncio.get_running_loop()
        self.db = state.open_state(self.folder / "state.sqlite")
        state.seed(self.db, catalogue.load(catalogue.DEFAULT_FILE))
        state.set_fact(self.db, "token", TOKEN)
        self.simulator = simulator.Simulator(self.db, listener, self.folder, lambda: self.device, self._told)
        self._task = self._loop.create_task(self.simulator.connections.run())
        ready.set()
        with contextlib.suppress(asyncio.CancelledError):
            await self._task
        self.db.close()

    def _told(self, event, entry):
        self.events.append((event, entry["seq"]))
        if event == "journal":
            self.told.append(entry)

    def do(self, function, *arguments, **options):
        """Calls a function in the server's thread."""

        async def called():
            return function(*arguments, **options)

        return asyncio.run_coroutine_threadsafe(called(), self._loop).result(20)

    def stop(self):
        self._loop.call_soon_threadsafe(self._task.cancel)
        self._thread.join(20)
        assert not self._thread.is_alive()


class Client:
    """One connection of a client that sends the same bytes as the daemon."""

    def __init__(self, store, context, session=None):
        raw = socket.create_connection(("127.0.0.1", store.port), timeout=20)
        self.tls = context.wrap_socket(raw, server_hostname=HOST, session=session, suppress_ragged_eofs=False)
        self._store = store

    def send(self, raw):
        """Sends these bytes.
        @return status and body, as bytes
        """
        self.tls.sendall(raw)
        response = http.client.HTTPResponse(self.tls)
        response.begin()
        return response.status, response.read()

    def request(self, endpoint, **values):
        """Sends a correct request with some values changed.
        @return status and JSON
        """
        status, body = self.send(request(endpoint, self._store.device, **values))
        return status, json.loads(body)

    def close(self):
        self.tls.close()


def request(endpoint, device, appid="app-1", checkvalue="", invoice="INV-SEED-2", custom="me", page="pagesize=20&startidx=1"):
    """The bytes that the daemon sends to an endpoint."""
    country, guid, uid = device["country"], device["guid"], device["uid"]
    paths = {
        "country": f"GET /billing/service/v2/country?storeid=1&storeprodcode=1&guid={uid}&uid={uid}"
        f"&lang=en&countrycode={country}",
        "products": f"GET /billing/product/v2/products?appid={appid}&guid={guid}&uid={uid}"
        f"&storeid=1&storeprodcode=1&countrycode={country}&languagecode=en"
        f"&checkvalue={checkvalue}",
        "invoices": f"GET /billing/service/v2/user/invoices?customid={uid}&countrycode={country}"
        f"&languagecode=en&GUID={guid}&UID={uid}&storeid=1&storeprodcode=1&{page}"
        "&reqtype=2",
        "apply": "POST /billing/payment/v2/apply",
        "confirm": "POST /billing/payment/v2/confirm",
    }
    lines = [
        f"{paths[endpoint]} HTTP/1.1",
        f"Host: {device['host']}",
        "Content-Type: application/json; charset=utf-8",
        "Accept: application/json",
        f"DUID: {device['duid']}",
        f"Atoken: {device['token']}",
    ]
    if endpoint == "invoices":
        lines += ["TvYear: 15", "TvVersion: 1.2"]
    body = ""
    if endpoint in ("apply", "confirm"):
        members = {
            "GUID": guid,
            "UID": uid,
            "appId": appid,
            "countryCode": country,
            "customId": custom,
            "invoiceId": invoice,
            "languageCode": "en",
            "storeId": "1",
            "storeProdCode": "1",
        }
        body = "{\n" + ",\n".join(f"   {json.dumps(k)} : {json.dumps(v)}" for k, v in members.items()) + "\n}\n"
        lines.append(f"Content-Length: {len(body)}")
    return ("\r\n".join(lines) + "\r\n\r\n" + body).encode()


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    """An authority, and a device's certificate with its key."""
    folder, authority = tmp_path_factory.mktemp("certificates"), trustme.CA()
    authority.cert_pem.write_to_path(folder / "ca.pem")
    authority.private_key_pem.write_to_path(folder / "ca.key")
    server = authority.issue_cert(*tls.HOSTS)
    server.cert_chain_pems[0].write_to_path(folder / "server.pem")
    server.private_key_pem.write_to_path(folder / "server.key")
    device = authority.issue_cert("device.example")
    device.private_key_and_cert_chain_pem.write_to_path(folder / "client.pem")
    return folder


@pytest.fixture
def store(tmp_path, certificates):
    running = RunningStore(tmp_path, certificates)
    yield running
    running.stop()


@pytest.fixture
def device_context(store):
    """TLS settings of the device."""
    context = ssl.create_default_context(cafile=store.folder / "ca.pem")
    context.load_cert_chain(store.folder / "client.pem")
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    # Reports a connection that ends without TLS's close alert as an error.
    context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF
    return context


@pytest.fixture
def clients(store, device_context):
    """A function that makes another client."""
    made = []

    def make(session=None):
        made.append(Client(store, device_context, session))
        return made[-1]

    yield make
    for client in made:
        client.close()


@pytest.fixture
def client(clients):
    return clients()


# Whole labs


def owned(address, name):
    """Requests a bus name, like a mock of a service.
    @return the connection that owns it
    """
    connection = Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
    )
    asked = GLib.Variant("(su)", (name, 0))
    bus = "org.freedesktop.DBus"
    connection.call_sync(
        bus, "/org/freedesktop/DBus", bus, "RequestName", asked, None, Gio.DBusCallFlags.NONE, 10_000, None
    )  # fmt: skip
    return connection


pytest_plugins = ["billing_lab.pytest_plugin", "page.browser"]
NO_VIEW = view.why_no_view()


@pytest.fixture(scope="session")
def needs_view():
    """Skips where the test's daemon cannot have its own view of /opt."""
    if NO_VIEW is not None:
        pytest.skip(NO_VIEW)


@pytest.fixture
def lab(needs_view, billing_lab):
    return billing_lab


@pytest.fixture
def cli(tmp_path):
    """A function that runs the command; everything that it writes goes to a folder of the test."""
    home = tmp_path / "home"
    home.mkdir()
    environment = {
        "PATH": os.environ["PATH"],
        "HOME": str(home),
        "TMPDIR": str(home),
        **{name: os.environ[name] for name in ("BILLING_SERVICE", "PYTHONDONTWRITEBYTECODE") if name in os.environ},
    }

    def run(*arguments, folder=tmp_path / "lab", before=(), **more):
        return subprocess.run(
            [*before, LAB / "billing-lab", "--dir", folder, *map(str, arguments)],
            env={**environment, **more},
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
        )

    run.environment = environment
    return run
