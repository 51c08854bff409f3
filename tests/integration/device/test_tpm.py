"""A device whose key is generated inside a TPM, with a PKCS#11 module other than SoftHSM."""
import glob
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest
from cryptography import x509
from harness import daemon
from harness.device import credentials, device
from harness.store import server

MODULES = glob.glob("/usr/lib/*/libtpm2_pkcs11.so.1")
PROGRAMS = ("swtpm", "pkcs11-tool", "tpm2_flushcontext")
LABEL, PIN = "billing-tpm", "user-pin-4711"

pytestmark = pytest.mark.skipif(
    not MODULES or any(shutil.which(program) is None for program in PROGRAMS),
    reason="no software TPM (apt install swtpm tpm2-tools libtss2-tcti-swtpm0 libtpm2-pkcs11-1 opensc)",
)


# All commands run as the test's own user.
IN_PLACE_OF_RUNUSER = 'runuser() { while [ "$1" != -- ]; do shift; done; shift; "$@"; }'


def documented():
    """The page's commands for a device with a TPM; the folder of the module's database is the test's own."""
    page = (pathlib.Path(__file__).parents[3] / "docs/INTEGRATION.md").read_text(encoding="utf-8")
    commands = re.search(r"```sh tpm\n(.*?)```", page, re.DOTALL)[1].splitlines()
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
        """Runs one command. Removes its transient objects from the TPM afterwards, like a resource manager."""
        done = subprocess.run(
            [str(part) for part in command],
            check=False,
            capture_output=True,
            text=True,
            env={**os.environ, **daemon.SANITIZERS, **self.environment, **(environment or {})},
        )
        assert done.returncode == 0, done.stderr
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
