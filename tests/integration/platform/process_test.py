"""Environment, signals and descriptors after the start of the process."""
import os
import shutil
import subprocess

import pytest

PROBE = os.environ["PLATFORM_PROBE"]
# Variables that locate the program's libraries in a build folder or configure a sanitizer.
LOADER = {k: v for k, v in os.environ.items() if k.startswith(("LD_", "ASAN", "LSAN", "TSAN"))}
STEERING = [
    "https_proxy",
    "HTTPS_PROXY",
    "http_proxy",
    "ALL_PROXY",
    "no_proxy",
    "SSLKEYLOGFILE",
    "SSL_CERT_FILE",
    "SSL_CERT_DIR",
    "CURL_CA_BUNDLE",
    "OPENSSL_CONF",
    "OPENSSL_ENGINES",
    "OPENSSL_MODULES",
    "RES_OPTIONS",
    "LOCALDOMAIN",
    "HOSTALIASES",
    "GIO_EXTRA_MODULES",
    "EFL_RUN_IN_TREE",
    "DBUS_SESSION_BUS_ADDRESS",
    "ANYTHING_ELSE",
]
KEPT = [
    "TZ",
    "G_DEBUG",
    "SOFTHSM2_CONF",
    "TPM2_PKCS11_STORE",
    "DBUS_SYSTEM_BUS_ADDRESS",
    "DBUS_STARTER_BUS_TYPE",
    "PLEVO_DEVICE_CONF",
    "PLEVO_LOG_LEVEL",
    "LC_ALL",
    "NOTIFY_SOCKET",
]


def started(command=(PROBE, "process"), **variables):
    done = subprocess.run(command, env={**LOADER, **variables}, stdout=subprocess.PIPE, timeout=60, check=True)
    lines = done.stdout.decode().splitlines()
    facts = [line[1:] for line in lines if line.startswith("=")]
    return dict(line.split("=", 1) for line in lines if not line.startswith("=")), facts


def test_what_steers_libraries_is_gone_and_the_harmless_stays():
    given = {name: "info" for name in STEERING + KEPT}
    left, _ = started(**given)
    assert not set(STEERING) & set(left)
    assert set(KEPT) <= set(left)


@pytest.mark.parametrize("folder", [None, "", "relative", "/no/such/folder", "/etc/passwd"])
def test_a_run_folder_that_cannot_be_used_is_replaced(folder):
    left, _ = started(**({} if folder is None else {"XDG_RUNTIME_DIR": folder}))
    assert os.path.isdir(left["XDG_RUNTIME_DIR"])
    assert os.path.isabs(left["XDG_RUNTIME_DIR"])


def test_a_run_folder_that_exists_is_kept(tmp_path):
    left, _ = started(XDG_RUNTIME_DIR=str(tmp_path))
    assert left["XDG_RUNTIME_DIR"] == str(tmp_path)


def test_only_sigterm_is_held_and_no_core_is_written():
    _, facts = started()
    assert "term blocked 1" in facts
    assert "int blocked 0" in facts
    assert "dumpable 0" in facts


def test_the_soft_limit_of_descriptors_is_raised_to_the_hard_one():
    _, facts = started(["sh", "-c", 'ulimit -S -n 64; ulimit -H -n 512; "$0" process', PROBE])
    assert "descriptor limit 512" in facts


def test_threads_without_a_stack_size_get_a_small_one():
    _, facts = started()
    (stack,) = (int(fact.split()[1]) for fact in facts if fact.startswith("stack "))
    # The size includes memory that libraries keep for each thread; the runtime of a sanitizer has more of it.
    assert 256 << 10 <= stack < 4 << 20


def test_a_traced_program_stays_open_to_its_tracer(tmp_path):
    if shutil.which("strace") is None:
        pytest.skip("needs strace")
    command = ["strace", "-o", str(tmp_path / "trace"), PROBE, "process"]
    if subprocess.run([*command[:3], "true"], check=False, capture_output=True).returncode != 0:
        pytest.skip("tracing is not allowed here")
    # The leak check traces the program itself, so it cannot run under strace.
    _, facts = started(command, ASAN_OPTIONS="detect_leaks=0")
    assert "dumpable 1" in facts


def test_closed_standard_descriptors_are_filled():
    _, facts = started(["sh", "-c", '"$0" process <&- 2>&-', PROBE])
    assert facts[-3:] == ["descriptor 0 null 1", "descriptor 1 null 0", "descriptor 2 null 1"]
