"""A device whose key is generated inside a TPM, with a PKCS#11 module other than SoftHSM."""
import concurrent.futures
import glob
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

import pytest
from cryptography import x509
from harness import daemon
from harness.device import credentials, device
from harness.store import server

# Debian 13 has it in the folder pkcs11.
MODULES = glob.glob("/usr/lib/*/libtpm2_pkcs11.so.1") + glob.glob("/usr/lib/*/pkcs11/libtpm2_pkcs11.so.1")
PROGRAMS = ("swtpm", "pkcs11-tool", "tpm2_flushcontext")
LABEL, PIN = "billing-tpm", "user-pin-4711"

pytestmark = pytest.mark.skipif(
    not MODULES or any(shutil.which(program) is None for program in PROGRAMS),
    reason="no software TPM (apt install swtpm tpm2-tools libtss2-tcti-swtpm0 libtpm2-pkcs11-1 opensc)",
)


# All commands run as the test's own user.
IN_PLACE_OF_RUNUSER = 'runuser() { while [ "$1" != -- ]; do shift; done; shift; "$@"; }'


INTEGRATION = pathlib.Path(__file__).parents[3] / "docs/INTEGRATION.md"


def page_commands():
    """The page's commands for a device with a TPM."""
    return re.search(r"```sh tpm\n(.*?)```", INTEGRATION.read_text(encoding="utf-8"), re.DOTALL)[1].splitlines()


def documented():
    """The page's commands; the folder of the module's database is the test's own."""
    commands = page_commands()
    folder = [at for at, line in enumerate(commands) if "$TPM2_PKCS11_STORE" in line or line.startswith("export")]
    assert folder == [0, 1] and len(commands) == 4
    return commands[2:]


class Tpm:
    """A software TPM, started for one test."""

    def __init__(self, folder):
        self.state = folder / "tpm"
        self.state.mkdir()
        # Name under which the module looks for the control socket.
        socket = folder / "tpm.sock"
        self._process = subprocess.Popen(
            [
                "setpriv",
                "--pdeathsig",
                "TERM",
                "swtpm",
                "socket",
                "--tpm2",
                "--tpmstate",
                f"dir={self.state}",
                "--server",
                f"type=unixio,path={socket}",
                "--ctrl",
                f"type=unixio,path={socket}.ctrl",
                "--flags",
                "startup-clear,not-need-init",
            ],
            stderr=subprocess.DEVNULL,
        )
        self.environment = {
            "TPM2_PKCS11_TCTI": f"swtpm:path={socket}",
            "TPM2TOOLS_TCTI": f"swtpm:path={socket}",
            "TPM2_PKCS11_STORE": str(self.state),
            "TPM2_PKCS11_LOG_LEVEL": "0",
        }
        end = time.monotonic() + 20
        while not socket.exists():
            assert time.monotonic() < end, "swtpm does not listen"
            time.sleep(0.01)

    def run(self, *command, environment=None):
        """Runs one command, which must succeed."""
        done = self.attempt(*command, environment=environment)
        self.flush()
        assert done.returncode == 0, done.stderr

    def attempt(self, *command, environment=None):
        """Runs one command, which leaves its transient objects in the TPM."""
        return subprocess.run(
            [str(part) for part in command],
            check=False,
            capture_output=True,
            text=True,
            timeout=60,
            env={**os.environ, **daemon.SANITIZERS, **self.environment, **(environment or {})},
        )

    def flush(self):
        """Removes the transient objects of commands that have ended, like a resource manager."""
        for kind in ("--transient-object", "--loaded-session"):
            subprocess.run(["tpm2_flushcontext", kind], check=True, env={**os.environ, **self.environment})

    def stop(self):
        self._process.terminate()
        self._process.wait()


class TpmCredentials(credentials.Credentials):
    """Credentials of a device that are in its TPM or made for the key there."""

    def __init__(self, folder, tpm, authority_folder):
        super().__init__(folder)
        self.folder.mkdir()
        self.certificates.mkdir()
        self.authority = authority_folder / "ca.pem"
        self.environment = tpm.environment
        pin = self.folder / "pin"
        pin.touch(mode=0o600)
        pin.write_text(PIN)
        (self.folder / "so-pin").write_text("so-pin")
        self._conf = self.folder / "device.conf"
        self._conf.touch(mode=0o600)
        self._conf.write_text(
            "".join(
                f"[{group}]\n" + "".join(f"{key}={value}\n" for key, value in values.items())
                for group, values in self.settings.items()
            )
        )
        for command in documented():
            tpm.run(
                "sh",
                "-ec",
                f"{IN_PLACE_OF_RUNUSER}\ncd {self.folder}\n{command}",
                environment={
                    "PATH": f"{os.path.dirname(credentials.provision_tool())}:{os.environ['PATH']}",
                    "PLEVO_DEVICE_CONF": str(self._conf),
                    "TPM2_PKCS11_STORE": str(tpm.state),
                },
            )
        (self.folder / "signed.crt").write_bytes(sign(self.folder / "device.csr", authority_folder))
        self._provision(tpm, "install", self.folder / "signed.crt", "--to", self.certificate)

    def _provision(self, tpm, *arguments):
        tpm.run(credentials.provision_tool(), *arguments, environment={"PLEVO_DEVICE_CONF": str(self._conf)})

    @property
    def settings(self):
        return {
            "deployment": {"credential": "1 2 3 4 5", "key_id": "7"},
            "keystore": {
                "module": MODULES[0],
                "token": LABEL,
                "pin_file": str(self.folder / "pin"),
                "store": str(self.folder / "store"),
            },
        }


def sign(request_file, authority_folder):
    """Signs a certificate request, as the authority of a device maker does."""
    request = x509.load_pem_x509_csr(request_file.read_bytes())
    assert request.is_signature_valid
    return credentials.issue(request.public_key(), request.subject, authority_folder)


@pytest.fixture
def tpm(tmp_path):
    running = Tpm(tmp_path)
    yield running
    running.stop()


@pytest.fixture
def a_device(tmp_path, tpm, store, authority, provisioned):
    made = device.Device(
        tmp_path, TpmCredentials(tmp_path / "tpm-device", tpm, provisioned.folder), f"production.localhost:{store.port}"
    )
    made.ca_file.write_bytes(authority.pem)
    return made


def test_a_key_made_inside_a_tpm_opens_the_store(service, caller, store):
    began = time.monotonic()
    assert caller.call("check_server_availability") == (0, "{}")
    cold = time.monotonic() - began
    store.answer = server.Reply(b"{}", keep=False)
    began = time.monotonic()
    assert caller.call("confirm_purchase", "a", "c", "i", "0") == (0, "{}")
    warm = time.monotonic() - began

    # One signature, for the first connection. The check of the key at the start takes another path.
    assert service.texts("I").count("Encrypt by KeyStore") == 1
    assert service.texts("I").count("Private key is valid") == 1
    print(f"first call {cold * 1000:.1f} ms, second {warm * 1000:.1f} ms")


def test_a_tpm_that_is_gone_fails_the_call_and_says_so(service, caller, store, tpm):
    tpm.stop()

    assert caller.call("check_server_availability") == (-1, "")

    (line,) = [record.text for record in service.log() if record.tag == "BILLING_PLATFORM" and LABEL in record.text]
    assert "see whether the token is there" in line
    assert store.requests == []


def in_place(block, a_device, tpm):
    """A block of docs/RENEWAL.md with the paths of the test's device. The test itself restarts the daemon and runs the
    doctor.
    """
    page = (pathlib.Path(__file__).parents[3] / "docs/RENEWAL.md").read_text(encoding="utf-8")
    (text,) = re.findall(rf"```sh {block}\n(.*?)```", page, re.DOTALL)
    left_out = (
        "systemctl",
        "billingctl",
        "chown -R root:billing-service /etc/plevo/tokens",
        "chmod -R u=rwX,g=rX,o= /etc/plevo/tokens",
    )
    text = "\n".join(line for line in text.splitlines() if not line.startswith(left_out))
    certificate = a_device.credentials.certificate
    for ours, theirs in (
        ("-g billing-service ", ""),
        ("/etc/plevo", str(a_device.file.parent)),
        ("/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt", str(certificate)),
        ("install --force", f"install --to {certificate} --force"),
        ("/var/lib/billing-service/tpm", str(tpm.state)),
    ):
        text = text.replace(ours, theirs)
    return text


def test_a_new_key_of_the_tpm_takes_over_and_gives_way_again(
    tpm, a_device, start_daemon, needs_view, caller, store, provisioned
):
    folder = a_device.credentials.folder

    def do(block):
        provision = os.path.dirname(credentials.provision_tool())
        tpm.run(
            "sh",
            "-ec",
            f"{IN_PLACE_OF_RUNUSER}\ncd {folder}\n{in_place(block, a_device, tpm)}",
            environment={"PATH": f"{provision}:{os.environ['PATH']}", "PLEVO_DEVICE_CONF": str(a_device.file)},
        )

    def answered():
        process = start_daemon()
        process.wait_for_name(caller)
        assert caller.call("check_server_availability") == (0, "{}")
        assert process.texts("I").count("Private key is valid") == 1
        process.stop()
        return x509.load_pem_x509_certificate(a_device.credentials.certificate.read_bytes()).public_key().public_numbers()

    first = answered()
    do("rekey-tpm")
    assert answered() == first
    (folder / "device.crt").write_bytes(sign(folder / "device.csr", provisioned.folder))
    do("rekeyed")
    assert "key_id=8\n" in a_device.file.read_text()
    assert answered() != first
    do("rekey-back")
    assert answered() == first
    # The module leaves no lock file that would exclude the module of another user.
    assert [path.name for path in tpm.state.glob("tpm2_pkcs11*.lock")] == []
    assert len(store.requests) == 4


SERVICE, STRANGER, TSS = 61001, 61002, 61003
DATABASE = "tpm2_pkcs11.sqlite3"

# runuser for the users of the test, which are only numbers. It accepts the calls of the page alone.
AS_SERVICE = f"""runuser() {{
    [ "$1 $2" = "-u billing-service" ]; shift 2
    groups=--clear-groups
    if [ "$1" = -G ]; then [ "$2" = tss ]; groups=--groups={TSS}; shift 2; fi
    [ "$1" = -- ]; shift
    setpriv --reuid={SERVICE} --regid={SERVICE} $groups "$@"
}}"""


class OwnedToken:
    """A TPM whose device belongs to a group, and the token of the service's user in it, made with the page's commands."""

    def __init__(self, folder):
        self.folder = folder
        self.database = folder / "state/tpm"
        self.tpm = Tpm(folder)
        self.tpm.environment["TPM2_PKCS11_STORE"] = str(self.database)
        for name in ("tpm.sock", "tpm.sock.ctrl"):
            os.chown(folder / name, 0, TSS)
            os.chmod(folder / name, 0o660)
        # Another user may not enter the folder of the build.
        (folder / "bin").mkdir()
        shutil.copy2(credentials.provision_tool(), folder / "bin/billing-provision")
        (folder / "state").mkdir(mode=0o700)
        os.chown(folder / "state", SERVICE, SERVICE)
        self._write("so-pin", "so-pin", 0o600, 0)
        self._write("pin", PIN, 0o600, SERVICE)
        self._write(
            "device.conf",
            "[deployment]\ncredential=1 2 3 4 5\nkey_id=7\n"
            f"[keystore]\nmodule={MODULES[0]}\ntoken={LABEL}\npin_file={folder}/pin\nstore={folder}/state/store\n",
            0o640,
            0,
        )
        make_folder, *commands = page_commands()[1:]
        for command in (make_folder, *commands):
            self.tpm.run("sh", "-ec", f"{AS_SERVICE}\ncd {folder}\n{command}", environment=self._environment())

    def _write(self, name, text, mode, owner):
        path = self.folder / name
        path.touch(mode=mode)
        path.write_text(text, encoding="utf-8")
        os.chown(path, owner, SERVICE)

    def _environment(self):
        return {"PATH": f"{self.folder}/bin:{os.environ['PATH']}", "PLEVO_DEVICE_CONF": str(self.folder / "device.conf")}

    def sign(self, user=SERVICE, groups=f"--groups={TSS}"):
        """Signs a file with the device's key, as a user.
        @return the errors, or the signature's size
        """
        with tempfile.NamedTemporaryFile(dir=self.folder) as signature:
            os.chmod(signature.name, 0o666)
            done = self.tpm.attempt(
                *["setpriv", f"--reuid={user}", f"--regid={user}", groups],
                *["pkcs11-tool", "--module", MODULES[0], "--token-label", LABEL, "--login", "--pin", PIN],
                *["--sign", "--mechanism", "SHA256-RSA-PKCS", "--id", "00000007"],
                *["--input-file", self.folder / "device.csr", "--output-file", signature.name],
            )
            return done.stderr if done.returncode else os.path.getsize(signature.name)

    def sign_alone(self, *arguments):
        done = self.sign(*arguments)
        self.tpm.flush()
        return done


@pytest.fixture
def owned():
    if os.geteuid() != 0:
        pytest.skip("several users take part, so this needs root")
    with tempfile.TemporaryDirectory(prefix="billing-") as name:
        os.chmod(name, 0o755)
        made = OwnedToken(pathlib.Path(name))
        yield made
        made.tpm.stop()


SIGNED = 256


def test_the_token_is_for_the_service_s_user_with_the_group_of_the_tpm(owned):
    assert owned.sign_alone() == SIGNED
    assert "Cannot connect to swtpm TPM socket" in owned.sign_alone(SERVICE, "--clear-groups")
    # The group opens the TPM, but not the database.
    assert "unable to open database file" in owned.sign_alone(STRANGER)
    assert "unable to open database file" in owned.sign_alone(STRANGER, "--clear-groups")
    facts = [(path.stat().st_uid, path.stat().st_mode & 0o777) for path in (owned.database, owned.database / DATABASE)]
    assert facts == [(SERVICE, 0o700), (SERVICE, 0o600)]


def test_two_processes_use_the_token_at_once(owned):
    for _ in range(3):
        with concurrent.futures.ThreadPoolExecutor(2) as both:
            done = list(both.map(lambda _: owned.sign(), range(2)))
        owned.tpm.flush()
        assert done == [SIGNED, SIGNED]


def test_a_lock_file_that_root_leaves_shuts_the_service_out_until_it_is_removed(owned):
    """A command of root removes the lock file at its end. Only a killed one leaves it."""
    owned.tpm.run("pkcs11-tool", "--module", MODULES[0], "--list-token-slots")
    assert [path.name for path in owned.database.iterdir()] == [DATABASE]
    assert owned.sign_alone() == SIGNED

    lock = owned.database / f"{DATABASE}.lock"
    lock.touch(mode=0o644)
    assert lock.stat().st_uid == 0
    assert f'Could not open lock file "{lock}"' in owned.sign_alone()

    (cure,) = re.findall(r"`(rm -f [^`]*lock)`", INTEGRATION.read_text(encoding="utf-8"))
    owned.tpm.run("sh", "-ec", cure.replace("/var/lib/billing-service/tpm", str(owned.database)))
    assert owned.sign_alone() == SIGNED

    # A lock file of the service's user itself, left by a killed process, keeps no process out.
    lock.touch()
    os.chown(lock, SERVICE, SERVICE)
    assert owned.sign_alone() == SIGNED
