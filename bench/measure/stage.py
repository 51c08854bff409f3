"""Everything that runs while something is measured: bus, servers, daemon and floors."""
import contextlib
import json
import os
import pathlib
import resource
import signal
import subprocess
import time

from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa
from gi.repository import GLib
from harness import daemon
from harness.device import certificates, credentials, device, token_proxy
from harness.store import nginx

from billing_lab.device import bus

from . import arrivals

HOST = "localhost"
SIZES = (512, 32 * 1024, 1024 * 1024)
SMALL = SIZES[0]
METHOD = "get_product_list"
PROTOCOLS = {"http1": "", "http2": "http2"}

# More than the system bus has: what it would refuse cannot be measured.
LIMITS = {
    "max_replies_per_connection": 50_000,
    "max_connections_per_user": 1_000,
    "max_completed_connections": 2_000,
    "max_incomplete_connections": 500,
    "max_incoming_bytes": 1_000_000_000,
    "max_outgoing_bytes": 1_000_000_000,
}

# A handshake has 600 seconds: 64 at once under valgrind take a minute and more on a busy machine.
SERVER = """keepalive_requests 100000000; keepalive_timeout 75; client_header_timeout 600; open_file_cache max=16;
 {log} root {folder};"""


# Seconds. The daemon's own bound is three.
SETTLED = 4


def floor_name(size):
    """The bus service that answers with so many letters."""
    return f"org.plevo.billingfloor.b{size}"


BOTH = "org.plevo.billingfloor.both"
WORKER = "org.plevo.billingfloor.worker"
# Programs in bench/peers. meson knows those whose libraries are there (scripts/setup bench).
PEERS = ("sdbus_workers", "gdbus_soup")
# Those that load libp11's engine when they start.
WITH_ENGINE = {"sdbus_workers"}
PROGRAMS = (
    "bench/caller",
    "bench/bus_floor",
    "bench/https_floor",
    "bench/both_floor",
    "bench/worker_floor",
    "service/billing-service",
    "platform/provision/billing-provision",
    "tests/support/test-pkcs11-proxy.so",
)


def peer_name(program):
    """The bus name of a peer."""
    return f"org.plevo.billingpeer.{program}"


def programs():
    """Where the programs of the measurement are."""
    return daemon.binary().parents[1] / "bench"


def build():
    """Builds what is measured and what measures, and the peers whose libraries are there. @return the peers that are not"""
    folder = str(daemon.binary().parents[1])
    told = subprocess.run(["ninja", "-C", folder, "-t", "targets", "all"], check=True, capture_output=True, text=True)
    known = {line.split(":")[0] for line in told.stdout.splitlines()}
    peers = {f"bench/{program}" for program in PEERS}
    subprocess.run(["ninja", "-C", folder, "--quiet", *PROGRAMS, *known & peers], check=True)
    return [peer for peer in PEERS if not is_there(peer)]


def is_there(peer):
    """Is a peer built, and what it loads installed?"""
    return os.access(programs() / peer, os.X_OK) and (peer not in WITH_ENGINE or has_engine())


def has_engine():
    """May programs that know OpenSSL's engines use a token (libengine-pkcs11-openssl)?"""
    return subprocess.run(["openssl", "engine", "pkcs11"], check=False, capture_output=True).returncode == 0


def raise_descriptors():
    """What is started from now on may have as many as we may."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


class Stage:
    """One set of all of it, in a folder of the caller's. A context manager."""

    def __init__(self, folder, *, log_handshakes=False):
        raise_descriptors()
        self.folder = pathlib.Path(folder)
        self.processes, self.servers, self.daemon, self.caller, self.bus = [], {}, None, None, None
        with contextlib.ExitStack() as undo:
            undo.callback(self.stop)
            self._prepare(log_handshakes)
            undo.pop_all()

    def _prepare(self, log_handshakes):
        self.authority = certificates.Authority()
        keys = credentials.Credentials.make(self.folder / "lab")
        for size in SIZES:
            (self.folder / f"body-{size}").write_bytes(b"x" * size)
        extra = SERVER.format(folder=self.folder, log="" if log_handshakes else "access_log off;")
        for protocol, listen in PROTOCOLS.items():
            self.servers[protocol] = nginx.Nginx(
                self.folder / protocol,
                self.authority.server_pem(HOST),
                keys.authority,
                listen=listen,
                extra=extra,
                answer="try_files /body-$arg_appid =404;",
                connections=12_000,
            )
        self.device = device.Device(self.folder, keys)
        self.keys = keys
        self.trust()
        self.proxy = token_proxy.TokenProxy(self.folder, self.device)
        self._make_client_certificate(keys)
        names = (bus.SERVICE, BOTH, WORKER, *map(floor_name, SIZES), *map(peer_name, PEERS))
        self.bus = bus.Bus(self.folder, limits=LIMITS, names=names)
        self.environment = {"PATH": "/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS": self.bus.address}
        self.caller = bus.Caller(self.bus.address)
        self.arrivals = arrivals.Arrivals(self.caller)
        self.use("http1")

    def _make_client_certificate(self, keys):
        """For the HTTPS floor: like the device's own, with a key that needs no token."""
        key = rsa.generate_private_key(65537, 2048)
        subject = x509.load_pem_x509_certificate(keys.certificate.read_bytes()).subject
        self.client_pem = self.folder / "client.pem"
        self.client_pem.write_bytes(credentials.issue(key.public_key(), subject, keys.folder) + certificates.pem_of(key))

    def trust(self, others=0):
        """Writes the bundle of authorities: the server's, and so many that vouch for nobody here."""
        public = rsa.generate_private_key(65537, 2048).public_key()
        self.device.ca_file.write_bytes(
            self.authority.pem
            + b"".join(
                credentials.issue(
                    public, x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, f"Authority {number}")]), self.keys.folder
                )
                for number in range(others)
            )
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Leaves nothing behind."""
        if self.daemon is not None:
            self.daemon.kill()
        for process in self.processes:
            process.kill()
            process.wait()
        if self.caller is not None:
            self.caller.close()
        if self.bus is not None:
            self.bus.stop()
        for server in self.servers.values():
            server.send(signal.SIGCONT)
            server.stop()

    def use(self, protocol):
        """From now on requests go to the server that speaks HTTP/1.1, or HTTP/2."""
        self.server = self.servers[protocol]
        self.reach(self.server.port)

    def reach(self, port):
        """From now on requests go to this port."""
        self.host = f"{HOST}:{port}"
        for kind in ("production_host", "sandbox_host"):
            self.device.set("deployment", kind, self.host)
        self._changed = time.monotonic()

    def settle(self):
        """Waits until the daemon trusts the time stamps of its settings, and stops reading them anew for each value."""
        time.sleep(max(self._changed + SETTLED - time.monotonic(), 0))

    def start_daemon(self, *, view=True, tool=(), level="error"):
        """@return the seconds from exec to the name"""
        began = time.monotonic()
        self.daemon = daemon.Daemon(
            self.folder, self.bus.address, self.device, view=view, level=level, tool=tool, environment=self.proxy.environment
        )
        return self.arrivals.wait(bus.SERVICE, self.daemon.is_running) - began

    def stop_daemon(self):
        """@return the seconds from SIGTERM to the end"""
        began = time.monotonic()
        status = self.daemon.stop(timeout=300)
        took = time.monotonic() - began
        self.daemon = None
        if status != 0:
            raise RuntimeError(f"the daemon ended with {status}")
        return took

    def start_bus_floor(self, size, tool=()):
        name = floor_name(size)
        process = subprocess.Popen(
            [*tool, programs() / "bus_floor", name, str(size)],
            env=self.environment,
            stderr=subprocess.DEVNULL if tool else None,
        )
        self.processes.append(process)
        while self.caller.owner(name) is None:
            if process.poll() is not None:
                raise RuntimeError("the bus floor ended")
            time.sleep(0.005)
        return process

    def floor_command(self, program, name):
        """Of a service with both floors in it, for small bodies from the server in use."""
        return [programs() / program, name, *self._request(SMALL)]

    def call(self, name, count, in_flight, size=SMALL, wait=True):
        """Calls a service. @return {"seconds": of all, "us": of each}; without `wait` the process"""
        command = [programs() / "caller", name, str(count), str(in_flight), METHOD, str(size), "", ""]
        return self._measured(command, wait)

    def is_answered(self, name, size, timeout):
        """Does one call of a service bring the whole body?"""
        caller = bus.Caller(self.bus.address, name)
        try:
            return caller.call(METHOD, str(size), "", "", timeout=timeout) == (0, "x" * size)
        except GLib.Error:
            return False
        finally:
            caller.close()

    def fetch(self, count, in_flight, size=SMALL, tool=()):
        """The same with libcurl alone."""
        return self._measured([*tool, programs() / "https_floor", str(count), str(in_flight), *self._request(size)], True)

    def fetch_with_token(self):
        """One request with libcurl alone, that proves the device with the key in its token."""
        credentials_of_device = (self.device.credentials.certificate, self.key_uri())
        return self._measured(
            [programs() / "https_floor", "1", "1", *self._request(SMALL, credentials_of_device)], True, self.token_environment()
        )

    def key_uri(self):
        """@return the device's key in its token, as RFC 7512 has it"""
        keystore = self.device.settings["keystore"]
        number = int(self.device.settings["deployment"]["key_id"], 0)
        name = "".join(f"%{byte:02x}" for byte in number.to_bytes(4, "big"))
        pin = pathlib.Path(keystore["pin_file"]).read_text(encoding="ascii").strip()
        return f"pkcs11:token={keystore['token']};id={name};type=private?pin-value={pin}"

    def token_environment(self):
        """Where programs without the daemon's settings find the token: PKCS11_MODULE_PATH is libp11's engine's."""
        module = self.device.settings["keystore"]["module"]
        return {
            **self.environment,
            **self.device.credentials.environment,
            **self.proxy.environment,
            "PKCS11_MODULE_PATH": module,
            "BILLING_PKCS11_MODULE": module,
        }

    def _request(self, size, credentials_of_device=None):
        """@return URL, files and headers of the daemon's request. @param credentials_of_device  certificate and key"""
        url = (
            f"https://{self.host}/billing/product/v2/products?appid={size}&guid={device.GUID}"
            f"&uid={device.UID}&storeid=1&storeprodcode=1&countrycode=DE&languagecode=de"
            "&checkvalue="
        )
        headers = [
            "Content-Type: application/json; charset=utf-8",
            "Accept: application/json",
            f"DUID: {device.DUID}",
            f"Atoken: {device.TOKEN}",
            "Expect:",
        ]
        return [url, self.device.ca_file, *(credentials_of_device or (self.client_pem, self.client_pem)), *headers]

    def _measured(self, command, wait, environment=None):
        process = subprocess.Popen(command, env=environment or self.environment, stdout=subprocess.PIPE, text=True)
        if not wait:
            return process
        output, _ = process.communicate()
        if process.returncode != 0:
            raise RuntimeError(f"{command[0]} failed")
        return json.loads(output)


class Hanging:
    """Meanwhile the server takes connections and answers nothing."""

    def __init__(self, on):
        self._server = on.server

    def __enter__(self):
        self._server.send(signal.SIGSTOP)

    def __exit__(self, *_):
        self._server.send(signal.SIGCONT)
