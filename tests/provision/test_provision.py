"""billing-provision, run as a program: its files and their rights, and what it refuses."""

import os
import pathlib
import re
import shutil
import stat
import subprocess

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding, rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

from tool import (
    EXISTS,
    FAILED,
    MISMATCH,
    USAGE,
    certificate,
    change_setting,
    must,
    pem_of,
    pkcs11_tool,
    run,
    secret,
    self_signed,
    settings,
)

pytestmark = pytest.mark.skipif(
    shutil.which("softhsm2-util") is None, reason="softhsm2 is not installed (apt install softhsm2)"
)


def sign_request(folder, request):
    """Signs a request, like an authority."""
    authority = certificate(folder / "ca.pem")
    signer = serialization.load_pem_private_key((folder / "ca.key").read_bytes(), None)
    return (
        x509.CertificateBuilder(
            issuer_name=authority.subject,
            subject_name=request.subject,
            public_key=request.public_key(),
            serial_number=7,
            not_valid_before=authority.not_valid_before,
            not_valid_after=authority.not_valid_after,
        )
        .sign(signer, hashes.SHA256())
        .public_bytes(serialization.Encoding.PEM)
    )


def test_lab_makes_certificates_of_one_authority(lab):
    authority = certificate(lab / "ca.pem")
    for name, use in (("server.pem", ExtendedKeyUsageOID.SERVER_AUTH), ("bgclient.crt", ExtendedKeyUsageOID.CLIENT_AUTH)):
        made = certificate(lab / name)
        authority.public_key().verify(made.signature, made.tbs_certificate_bytes, padding.PKCS1v15(), hashes.SHA256())
        assert use in made.extensions.get_extension_for_class(x509.ExtendedKeyUsage).value
        assert made.public_key().key_size == 2048
    hosts = certificate(lab / "server.pem").extensions.get_extension_for_class(x509.SubjectAlternativeName).value
    assert hosts.get_values_for_type(x509.DNSName) == ["localhost"]
    assert [str(ip) for ip in hosts.get_values_for_type(x509.IPAddress)] == ["127.0.0.1"]
    server = serialization.load_pem_private_key((lab / "server.key").read_bytes(), None)
    assert server.public_key().public_numbers() == certificate(lab / "server.pem").public_key().public_numbers()


def test_lab_keeps_everything_from_others_under_umask_0(lab):
    for folder, folders, files in os.walk(lab):
        for name in folders:
            assert stat.S_IMODE(os.stat(f"{folder}/{name}").st_mode) == 0o700, name
        for name in files:
            assert stat.S_IMODE(os.stat(f"{folder}/{name}").st_mode) == 0o600, name
    assert stat.S_IMODE(os.stat(lab).st_mode) == 0o700


def test_lab_key_is_inside_the_token_and_is_the_certificates(lab):
    result = must(run("request", "--existing", folder=lab))
    request = x509.load_pem_x509_csr(result.stdout)
    assert request.is_signature_valid
    assert request.public_key().public_numbers() == certificate(lab / "bgclient.crt").public_key().public_numbers()


def test_lab_prints_what_the_service_needs_as_a_shell_takes_it(tmp_path):
    folder = tmp_path / "ev al $(touch pwned) it's"
    printed = must(run("lab", folder, "--host", "a.example", "192.0.2.1", "--production-host", "a.example:1", "--days", "3"))
    script = printed.stdout.decode() + "printenv PLEVO_DEVICE_CONF SOFTHSM2_CONF"
    taken = subprocess.run(["sh", "-ec", script], cwd=tmp_path, check=True, capture_output=True, text=True).stdout
    assert taken.splitlines() == [f"{folder}/device.conf", f"{folder}/softhsm2.conf"]
    assert list(tmp_path.iterdir()) == [folder]
    assert settings(folder)["production_host"] == "a.example:1"
    made = certificate(folder / "server.pem")
    assert (made.not_valid_after - made.not_valid_before).days == 4


@pytest.mark.parametrize(
    "option, value",
    [
        ("--host", "a.example,DNS:evil.example"),
        ("--host", "a.example\nbasicConstraints=CA:TRUE"),
        ("--host", ""),
        ("--host", "a b"),
        ("--host", "https://a.example"),
        ("--host", "a.example:1"),
        ("--host", "*.example"),
        ("--production-host", "a.example\n[keystore]"),
        ("--production-host", "https://a.example/"),
        ("--production-host", "a.example:0"),
        ("--sandbox-host", "user@a.example"),
        ("--sandbox-host", "a.example:65536"),
        ("--module", "/lib/x.so\ntoken=y"),
        ("--module", "libsofthsm2.so"),
        ("--days", "0"),
    ],
)
def test_lab_takes_no_value_that_would_be_more_than_itself(tmp_path, option, value):
    result = must(run("lab", tmp_path / "lab", option, value), USAGE)
    assert option.encode() in result.stderr
    assert not (tmp_path / "lab").exists()


def test_lab_takes_no_folder_whose_name_would_break_its_files(tmp_path):
    must(run("lab", f"{tmp_path}/la\nb"), USAGE)
    assert list(tmp_path.iterdir()) == []


def test_lab_takes_every_form_of_an_address_and_a_long_name(tmp_path):
    name = ".".join(["a" * 60, "b" * 60, "example"])
    must(run("lab", tmp_path / "lab", "--host", name, "192.0.2.1", "2001:db8::1"))
    hosts = certificate(tmp_path / "lab" / "server.pem").extensions.get_extension_for_class(x509.SubjectAlternativeName).value
    assert hosts.get_values_for_type(x509.DNSName) == [name]
    assert [str(ip) for ip in hosts.get_values_for_type(x509.IPAddress)] == ["192.0.2.1", "2001:db8::1"]


def test_lab_leaves_another_lab_alone_unless_forced(lab):
    before = {path: path.read_bytes() for path in lab.rglob("*") if path.is_file()}
    (lab / "notes").write_text("mine")
    must(run("lab", lab), EXISTS)
    assert all(path.read_bytes() == content for path, content in before.items())
    must(run("lab", lab, "--force"))
    assert (lab / "pin").read_bytes() != before[lab / "pin"]
    assert (lab / "notes").read_text() == "mine"
    must(run("request", "--existing", folder=lab))


def test_no_secret_is_printed(lab):
    result = must(run("lab", lab, "--force"))
    printed = result.stdout + result.stderr
    for name in ("pin", "so-pin"):
        assert (lab / name).read_bytes().strip() not in printed


def test_token_takes_its_pins_from_files_or_standard_input(lab, tmp_path):
    so_pin = secret(tmp_path / "so-pin", "officer-4711\n")
    for label, arguments, stdin in (("first", so_pin, b""), ("second", "-", b"officer-4711")):
        change_setting(lab, "token", label)
        result = must(run("token", "--so-pin", arguments, folder=lab, stdin=stdin))
        assert b"officer" not in result.stdout + result.stderr
        must(run("request", folder=lab))
        # The officer's PIN is the given one: only with it can the user's PIN be set again.
        for pin, works in (("officer-4712", False), ("officer-4711", True)):
            done = subprocess.run(
                [
                    "pkcs11-tool",
                    "--module",
                    settings(lab)["module"],
                    "--token-label",
                    label,
                    "--init-pin",
                    "--so-pin",
                    pin,
                    "--pin",
                    "123456",
                ],
                capture_output=True,
                check=False,
                env={**os.environ, "SOFTHSM2_CONF": f"{lab}/softhsm2.conf"},
            )
            assert (done.returncode == 0) is works, done.stderr


def test_token_leaves_a_token_of_this_label_alone(lab, tmp_path):
    result = must(run("token", "--so-pin", secret(tmp_path / "so-pin", "officer-4711"), folder=lab), EXISTS)
    assert b"left alone" in result.stderr
    must(run("request", "--existing", folder=lab))


@pytest.mark.parametrize(
    "text, mode, complaint",
    [("officer-4711", 0o644, b"chmod 600"), ("\n", 0o600, b"is empty"), ("x" * 300, 0o600, b"larger than")],
)
def test_token_uses_no_pin_file_that_is_of_no_use(lab, tmp_path, text, mode, complaint):
    change_setting(lab, "token", "another")
    result = must(run("token", "--so-pin", secret(tmp_path / "so-pin", text, mode), folder=lab), FAILED)
    assert complaint in result.stderr
    must(run("request", folder=lab), FAILED)


@pytest.mark.parametrize("given", [{}, {"SOFTHSM2_CONF": "/nowhere"}])
def test_the_settings_name_what_the_module_reads(lab, given):
    settings_file = f"--conf={lab}/device.conf"
    must(run("request", "--existing", settings_file, **given), FAILED)
    change_setting(lab, "token", f"billing-lab\nenvironment=SOFTHSM2_CONF={lab}/softhsm2.conf")
    must(run("request", "--existing", settings_file, **given))


@pytest.mark.parametrize("value", ["LD_PRELOAD=/x.so", "SOFTHSM2_CONF", "SOFTHSM2_CONF=/a /b"])
def test_no_other_variable_comes_from_the_settings(lab, value):
    change_setting(lab, "token", f"billing-lab\nenvironment={value}")
    result = must(run("request", "--existing", f"--conf={lab}/device.conf"), FAILED)
    assert b"[keystore] environment is none of NAME=value" in result.stderr


def test_request_makes_a_key_and_install_takes_its_certificate(lab, tmp_path):
    change_setting(lab, "key_id", "42")
    must(run("request", "--out", tmp_path / "csr", "--name", "tv 42", folder=lab))
    request = x509.load_pem_x509_csr((tmp_path / "csr").read_bytes())
    assert request.is_signature_valid
    assert request.subject.get_attributes_for_oid(NameOID.COMMON_NAME)[0].value == "tv 42"
    (tmp_path / "crt").write_bytes(sign_request(lab, request))
    must(run("install", tmp_path / "crt", "--to", tmp_path / "installed", folder=lab))
    installed = certificate(tmp_path / "installed")
    assert installed.public_key().public_numbers() == request.public_key().public_numbers()
    assert stat.S_IMODE(os.stat(tmp_path / "installed").st_mode) == 0o644


def test_install_says_that_a_chain_is_cut(lab, tmp_path):
    own = (lab / "bgclient.crt").read_bytes()
    (tmp_path / "chain").write_bytes(own + (lab / "ca.pem").read_bytes())
    result = must(run("install", tmp_path / "chain", "--to", tmp_path / "put", folder=lab))
    assert b"of the 2 certificates in " + bytes(tmp_path / "chain") + b" only the first is installed" in result.stderr
    assert (tmp_path / "put").read_bytes() == own


def test_the_key_may_sign_and_nothing_else(lab):
    shown = pkcs11_tool(lab, "--list-objects", "--type", "privkey")
    usage, access = re.search(r"Usage: +(.*)\n", shown)[1], re.search(r"Access: +(.*)\n", shown)[1]
    # "signRecover", which newer versions of pkcs11-tool show, is the same operation of an RSA key.
    assert set(usage.split(", ")) - {"signRecover"} == {"sign"} and "never extractable" in access and "sensitive" in access


def test_an_existing_key_that_may_do_more_is_refused(lab, tmp_path):
    pkcs11_tool(lab, "--keypairgen", "--key-type", "rsa:2048", "--id", "0000002c", "--usage-sign", "--usage-decrypt")
    change_setting(lab, "key_id", "44")
    result = must(run("request", "--existing", "--out", tmp_path / "csr", folder=lab), FAILED)
    assert b"may decrypt as well" in result.stderr and not (tmp_path / "csr").exists()
    must(run("request", "--existing", "--may-decrypt", "--out", tmp_path / "csr", folder=lab))


def test_a_century_of_days_is_one(tmp_path):
    must(run("lab", tmp_path / "lab", "--days", "36500"))
    made = certificate(tmp_path / "lab" / "server.pem")
    assert (made.not_valid_after - made.not_valid_before).days == 36501


def test_request_never_replaces_a_key(lab):
    before = must(run("request", "--existing", folder=lab)).stdout
    for arguments in ([], ["--force"]):
        result = must(run("request", *arguments, folder=lab), EXISTS)
        assert b"--existing" in result.stderr
        assert result.stdout == b""
    after = must(run("request", "--existing", folder=lab)).stdout
    keys = [x509.load_pem_x509_csr(pem).public_key().public_numbers() for pem in (before, after)]
    assert keys[0] == keys[1]


def test_request_checks_its_file_before_it_makes_a_key(lab, tmp_path):
    change_setting(lab, "key_id", "43")
    (tmp_path / "csr").write_text("mine")
    must(run("request", "--out", tmp_path / "csr", folder=lab), EXISTS)
    assert (tmp_path / "csr").read_text() == "mine"
    result = must(run("request", "--existing", folder=lab), FAILED)
    assert b"no private key with CKA_ID 0000002b" in result.stderr


def test_a_request_that_cannot_be_printed_is_a_failure(lab):
    with open("/dev/full", "wb") as full:
        result = run("request", "--existing", folder=lab, stdout=full)
    must(result, FAILED)
    assert b"standard output cannot be written" in result.stderr


def test_a_file_beside_the_one_that_is_written_is_left_alone(lab, tmp_path):
    (tmp_path / "csr.new").write_text("mine")
    must(run("request", "--existing", "--out", tmp_path / "csr", folder=lab))
    assert (tmp_path / "csr.new").read_text() == "mine"
    assert sorted(path.name for path in tmp_path.iterdir()) == ["csr", "csr.new", "lab"]


def test_nothing_is_left_of_a_file_that_does_not_fit(lab, tmp_path):
    (tmp_path / "csr").write_text("mine")
    result = must(run("request", "--existing", "--out", tmp_path / "csr", "--force", folder=lab, file_size=100), FAILED)
    assert b"csr cannot be written: File too large" in result.stderr
    assert (tmp_path / "csr").read_text() == "mine"
    assert sorted(path.name for path in tmp_path.iterdir()) == ["csr", "lab"]


def test_install_ends_with_the_restart_that_is_needed(lab, tmp_path):
    result = must(run("install", lab / "bgclient.crt", "--to", tmp_path / "put", folder=lab))
    assert result.stderr.decode().splitlines() == [
        f"Installed {tmp_path / 'put'}.",
        "Restart needed: a service that runs has read the one before (systemctl restart billing-service).",
    ]


def test_install_warns_of_a_certificate_that_ends_soon(tmp_path):
    folder = tmp_path / "soon"
    must(run("lab", folder, "--days", "20"))
    result = must(run("install", folder / "bgclient.crt", "--to", tmp_path / "put", folder=folder))
    assert re.search(
        rb"^Warning: the certificate ends in (19|20) days, by the clock of this machine.$", result.stderr, re.MULTILINE
    )


def test_install_refuses_a_certificate_of_another_key(lab, tmp_path):
    must(run("install", lab / "server.pem", "--to", tmp_path / "installed", folder=lab), MISMATCH)
    assert not (tmp_path / "installed").exists()


def test_install_says_that_the_folder_is_missing_and_what_to_do(lab, tmp_path):
    result = must(run("install", lab / "bgclient.crt", "--to", tmp_path / "none" / "crt", folder=lab), FAILED)
    assert result.stderr.decode().endswith(
        f"{tmp_path}/none/crt cannot be made: No such file or directory; make its folder first\n"
    )


def test_install_leaves_a_certificate_alone_unless_forced(lab, tmp_path):
    (tmp_path / "installed").write_text("old")
    arguments = ("install", lab / "bgclient.crt", "--to", tmp_path / "installed")
    must(run(*arguments, folder=lab), EXISTS)
    assert (tmp_path / "installed").read_text() == "old"
    must(run(*arguments, "--force", folder=lab))
    assert (tmp_path / "installed").read_bytes() == (lab / "bgclient.crt").read_bytes()


@pytest.mark.parametrize("target", ["data/crt", "../other/crt", "{tmp_path}/data/crt"])
def test_install_follows_a_link_and_leaves_it(lab, tmp_path, target):
    """The fixed path is on a read-only file system and links to a place where the device may write."""
    target = target.format(tmp_path=tmp_path)
    image = tmp_path / "image"
    place = image / target
    for folder in (image, tmp_path / "other", place.parent):
        folder.mkdir(exist_ok=True)
    (image / "first").symlink_to(target)
    (image / "link").symlink_to("first")
    arguments = ("install", lab / "bgclient.crt", "--to", image / "link")
    # The first call creates the link's target; the second finds it.
    must(run(*arguments, folder=lab))
    assert place.read_bytes() == (lab / "bgclient.crt").read_bytes()
    must(run(*arguments, folder=lab), EXISTS)
    place.write_text("old")
    result = must(run(*arguments, "--force", folder=lab))
    assert os.readlink(image / "link") == "first" and os.readlink(image / "first") == target
    assert place.read_bytes() == (lab / "bgclient.crt").read_bytes()
    assert result.stderr.decode().splitlines()[0].endswith("/crt.")


def test_install_ends_at_links_that_lead_round(lab, tmp_path):
    (tmp_path / "a").symlink_to("b")
    (tmp_path / "b").symlink_to("a")
    result = must(run("install", lab / "bgclient.crt", "--to", tmp_path / "a", "--force", folder=lab), FAILED)
    assert b"a link to a link without end" in result.stderr


def test_a_wrong_pin_is_named_by_its_file_and_not_shown(lab):
    (lab / "pin").write_text("wrong-pin-1234\n")
    result = must(run("request", "--existing", folder=lab), FAILED)
    assert b"CKR_PIN_INCORRECT" in result.stderr
    assert b"wrong-pin" not in result.stderr + result.stdout


def test_a_pin_file_that_others_can_read_is_not_used(lab):
    (lab / "pin").chmod(0o640)
    result = must(run("request", "--existing", folder=lab), FAILED)
    assert b"chmod 600" in result.stderr


def test_seal_takes_the_key_from_standard_input_or_a_file(lab, key, tmp_path):
    (tmp_path / "crt").write_bytes(self_signed(key))
    arguments = ("seal", "--certificate", tmp_path / "crt", "--out", tmp_path / "material")
    must(run(*arguments, folder=lab, stdin=pem_of(key)))
    sealed = (tmp_path / "material").read_bytes()
    assert len(sealed) == 616
    assert stat.S_IMODE(os.stat(tmp_path / "material").st_mode) == 0o600
    numbers = key.private_numbers()
    for number in (numbers.d, numbers.p, numbers.q, numbers.public_numbers.n):
        assert number.to_bytes(256, "big").lstrip(b"\0") not in sealed
    (tmp_path / "key").write_bytes(pem_of(key))
    must(run(*arguments, "--key", tmp_path / "key", folder=lab), EXISTS)
    assert (tmp_path / "material").read_bytes() == sealed
    must(run(*arguments, "--key", tmp_path / "key", "--force", folder=lab))
    assert (tmp_path / "material").read_bytes() != sealed


def test_seal_makes_the_devices_secret_once(lab, key, tmp_path):
    (tmp_path / "crt").write_bytes(self_signed(key))
    (lab / "seal.key").unlink()
    for name in ("one", "two"):
        must(run("seal", "--certificate", tmp_path / "crt", "--out", tmp_path / name, folder=lab, stdin=pem_of(key)))
        secret = (lab / "seal.key").read_bytes()
        assert len(secret) == 32
        assert stat.S_IMODE(os.stat(lab / "seal.key").st_mode) == 0o600
        if name == "one":
            first = secret
    assert secret == first


def test_seal_refuses_keys_that_do_not_fit(lab, key, tmp_path):
    (tmp_path / "crt").write_bytes(self_signed(key))
    arguments = ("seal", "--certificate", tmp_path / "crt", "--out", tmp_path / "material")
    other = rsa.generate_private_key(65537, 2048)
    small = rsa.generate_private_key(65537, 1024)
    encrypted = pem_of(key, serialization.BestAvailableEncryption(b"passphrase"))
    must(run(*arguments, folder=lab, stdin=pem_of(other)), MISMATCH)
    for stdin in (pem_of(small), encrypted, b"no key", b""):
        must(run(*arguments, folder=lab, stdin=stdin), FAILED)
    assert not (tmp_path / "material").exists()


@pytest.fixture(name="sealed")
def make_sealed(lab, key, tmp_path):
    """A lab with sealed key material for the key's number, and without a key of that number in its token."""
    (tmp_path / "crt").write_bytes(self_signed(key))
    change_setting(lab, "key_id", f"9\nkey_material={tmp_path}/material")
    must(run("seal", "--certificate", tmp_path / "crt", "--out", tmp_path / "material", folder=lab, stdin=pem_of(key)))
    return lab


def test_import_puts_the_sealed_key_into_the_token_and_removes_what_gives_it(sealed, key, tmp_path):
    must(run("import", tmp_path / "crt", folder=sealed))
    assert not (tmp_path / "material").exists() and not (sealed / "seal.key").exists()
    request = x509.load_pem_x509_csr(must(run("request", "--existing", folder=sealed)).stdout)
    assert request.public_key().public_numbers() == key.public_key().public_numbers()


def test_import_that_was_cut_off_before_the_removal_is_done_again(sealed, tmp_path):
    kept = {path: path.read_bytes() for path in (tmp_path / "material", sealed / "seal.key")}
    must(run("import", tmp_path / "crt", folder=sealed))
    for path, content in kept.items():
        path.touch(mode=0o600)
        path.write_bytes(content)
    assert b"in the token already" in must(run("import", tmp_path / "crt", folder=sealed)).stderr
    assert not any(path.exists() for path in kept)


def test_import_removes_nothing_when_the_key_is_not_in_the_token(sealed, tmp_path):
    (tmp_path / "other").write_bytes(self_signed(rsa.generate_private_key(65537, 2048)))
    must(run("import", tmp_path / "other", folder=sealed), FAILED)
    change_setting(sealed, "key_id", "7")
    assert b"another key" in must(run("import", tmp_path / "crt", folder=sealed), EXISTS).stderr
    change_setting(sealed, "key_id", "9")
    (sealed / "pin").write_text("wrong-pin-1234\n")
    must(run("import", tmp_path / "crt", folder=sealed), FAILED)
    assert (tmp_path / "material").exists() and (sealed / "seal.key").exists()


def test_wrong_usage_has_an_exit_code_of_its_own(tmp_path):
    for arguments in ([], ["nonsense"], ["lab"], ["lab", tmp_path / "x", "--days", "0"], ["seal"], ["request", "--name", ""]):
        must(run(*arguments), USAGE)
    assert not (tmp_path / "x").exists()


def test_help_tells_units_and_exit_codes():
    text = must(run("--help")).stdout.decode()
    for part in ("lab", "request", "install", "seal", "Exit codes", "days", "2048 bits"):
        assert part in text
    for command in ("lab", "request", "install", "seal"):
        assert "--force" in must(run(command, "--help")).stdout.decode()


def completions(*words):
    """Completions that bash offers for the last of these words."""
    file = pathlib.Path(__file__).resolve().parents[2] / "data/completions/billing-provision"
    script = f'. {file}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _billing_provision; ' 'printf "%s\\n" "${COMPREPLY[@]}"'
    done = subprocess.run(
        ["bash", "-c", script, "bash", "billing-provision", *words], capture_output=True, text=True, check=True
    )
    return set(done.stdout.split())


@pytest.mark.parametrize("command", ["lab", "token", "pin", "request", "install", "seal", "import", "status"])
def test_completion_offers_every_option_of_a_command(command):
    help_text = must(run(command, "--help")).stdout.decode()
    own = {word for word in re.findall(r"^  (?:-h,)?(--[a-z-]+)", help_text, re.MULTILINE)}
    assert completions(command, "--") == own | {"--conf"}


def test_completion_offers_the_commands():
    assert completions("s") == {"seal", "status"}
    assert {"lab", "token", "pin", "request", "install", "seal", "import", "status", "--version"} < completions("")


@pytest.mark.parametrize("typed, said", [("instal", ', did you mean "install"'), ("buy", "")])
def test_a_command_that_there_is_none_of_is_named(typed, said):
    result = must(run(typed), USAGE)
    assert result.stderr.decode() == (
        f'billing-provision: there is no command "{typed}"{said}; see ' "billing-provision --help\n"
    )
