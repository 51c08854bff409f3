"""Each row of docs/TROUBLESHOOTING.md on a device with that fault: the doctor's id and cure, and the journal."""
import datetime
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest
from harness.device import certificates
from harness.device.credentials import A_DAY
from harness.store import server
from harness.tools import page
from harness.tools.doctor import ILL, preloaded

TESTS = pathlib.Path(__file__).resolve().parents[2]

# Seconds after the start within which the service may still read a file that the test writes.
A_MOMENT = 0.7

# Rows whose faults other tests produce: those need several users, a service manager, or a process in the service's
# place.
ELSEWHERE = {
    "packaging/test_doctor_users.py": {"settings.closed", "ping.denied", "ping.no-policy"},
    "integration/doctor/test_doctor_service.py": {
        "ping.hung",
        "ping.library",
        "unit.library",
        "unit.failed",
        "unit.restarting",
        "call.slow",
        "call.outage",
    },
    "integration/doctor/test_doctor_store.py": {"request.slow"},
    "integration/doctor/test_doctor_callers.py": {"callers.held-back", "callers.refused", "callers.no-rules"},
}


class Scene:
    """A device, the service on it, an app and the doctor."""

    def __init__(self, device, store, start_daemon, caller, doctor, other_store, authority):
        self.device, self.store, self.caller = device, store, caller
        self._start, self._doctor, self._other_store, self.authority = start_daemon, doctor, other_store, authority
        self.process = None

    def start(self):
        """Starts the service at the journal's default level and makes an app's call."""
        self.process = self._start(level="call")
        self.process.wait_for_name(self.caller)
        self.caller.call("check_server_availability")

    def sees(self, *arguments, **variables):
        if self.process is None:
            self.start()
        return self._doctor(*arguments, **variables)[0]

    def with_store(self, **options):
        """Sets another store with a certificate of its own."""
        running = self._other_store(self.authority.server_context("localhost", **{"clients": None, **options}))
        self.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    def set(self, group, key, value):
        self.device.set(group, key, value)


@pytest.fixture
def scene(needs_view, a_device, store, start_daemon, caller, doctor, other_store, authority):
    return Scene(a_device, store, start_daemon, caller, doctor, other_store, authority)


def setting(group, key, value, *arguments, **variables):
    def broken(scene):
        scene.set(group, key, value)
        return scene.sees(*arguments, **variables)

    return broken


def answer(reply, *arguments):
    def broken(scene):
        scene.store.answer = reply
        return scene.sees(*arguments)

    return broken


def with_line(text):
    def broken(scene):
        scene.device.write_file(text(scene.device.file.read_text()))
        return scene.sees()

    return broken


def newer_certificate(scene):
    scene.start()
    time.sleep(A_MOMENT)
    shutil.copy2(scene.device.credentials.certificate, scene.device.credentials.certificates / "old")
    os.replace(scene.device.credentials.certificates / "old", scene.device.credentials.certificate)
    return scene.sees()


def late_key(scene):
    key = scene.device.settings["deployment"]["key_id"]
    scene.set("deployment", "key_id", None)
    scene.start()
    time.sleep(A_MOMENT)
    scene.set("deployment", "key_id", key)
    return scene.sees()


def wrong_pin(*arguments):
    def broken(scene):
        (scene.device.credentials.folder / "pin").write_text("wrong")
        return scene.sees(*arguments)

    return broken


def sealed(scene):
    material = scene.device.credentials.folder / "material"
    material.write_bytes(b"sealed")
    scene.set("deployment", "key_material", str(material))
    return setting("deployment", "key_id", "77", "--sign")(scene)


def ec_key(scene):
    key = scene.device.credentials.folder / "ec.pem"
    subprocess.run(
        ["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key],
        check=True,
        capture_output=True,
    )
    pin = (scene.device.credentials.folder / "pin").read_text().strip()
    subprocess.run(
        ["softhsm2-util", "--import", key, "--token", "billing-lab", "--label", "ec", "--id", "0000004d", "--pin", pin],
        check=True,
        capture_output=True,
        env={"PATH": "/usr/bin:/bin", **scene.device.credentials.environment},
    )
    return setting("deployment", "key_id", "77", "--sign")(scene)


def other_certificate(scene):
    subprocess.run(
        [
            "openssl",
            "req",
            "-x509",
            "-newkey",
            "rsa:2048",
            "-nodes",
            "-subj",
            "/CN=other",
            "-keyout",
            scene.device.credentials.folder / "other.key",
            "-out",
            scene.device.credentials.certificate,
        ],
        check=True,
        capture_output=True,
    )
    return scene.sees("--sign")


def no_certificate(scene):
    scene.device.credentials.certificate.unlink()
    return scene.sees()


def store_without_our_authority(scene):
    other = scene.device.credentials.folder / "other.pem"
    other.write_bytes(certificates.Authority().pem)
    scene.with_store(clients=other)
    return scene.sees()


def no_bundle(scene):
    scene.device.ca_file.unlink()
    return scene.sees()


def bundle_of_another(scene):
    scene.device.ca_file.write_bytes(certificates.Authority().pem)
    return scene.sees()


def certificate_for_days(begins, ends):
    def broken(scene):
        scene.device.credentials.reissue(begins, ends)
        return scene.sees()

    return broken


def bundle_for_days(scene):
    made = scene.device.credentials.certify(validity=(-A_DAY, 3 * A_DAY))
    scene.device.ca_file.write_bytes(made)
    return scene.sees()


def store_for_days(scene):
    scene.with_store(not_after=datetime.datetime.utcnow() + datetime.timedelta(days=5))
    return scene.sees()


def store_of_another_time(scene):
    date = time.strftime("Date: %a, %d %b %Y %H:%M:%S GMT", time.gmtime(time.time() + 7200))
    scene.with_store().answer = server.Reply(b"{}", headers=(date,))
    return scene.sees()


def material_left(scene):
    material = scene.device.credentials.folder / "material"
    material.touch()
    return setting("deployment", "key_material", str(material))(scene)


def open_settings(scene):
    scene.device.file.chmod(0o644)
    return scene.sees()


def stopped(scene):
    scene.start()
    scene.process.send(signal.SIGSTOP)
    try:
        return scene.sees(seconds="1")
    finally:
        scene.process.send(signal.SIGCONT)


def nobody(scene):
    return scene._doctor()[0]


BREAKS = {
    "restart.certificate": newer_certificate,
    "restart.settings": late_key,
    "key.pin": wrong_pin("--sign"),
    "request.key.pin": wrong_pin(),
    "token.missing": setting("keystore", "token", "other"),
    "key.sealed": sealed,
    "key.missing": setting("deployment", "key_id", "77", "--sign"),
    "key.other-kind": ec_key,
    "key.not-set": setting("deployment", "key_id", None),
    "key.other": other_certificate,
    "certificate.missing": no_certificate,
    "request.authority": store_without_our_authority,
    "ca-bundle.missing": no_bundle,
    "tls.not-trusted": bundle_of_another,
    "name-lookup.unknown": setting("deployment", "production_host", "store.invalid"),
    "tcp.not-connected": setting("deployment", "production_host", "localhost:1"),
    "name-lookup.proxy": setting("deployment", "production_host", "store.invalid", https_proxy="http://proxy:3128"),
    "tcp.proxy": setting("deployment", "production_host", "localhost:1", https_proxy="http://proxy:3128"),
    "request.outage": answer(server.Reply(b"<p>later", status="503 Service Unavailable"), "--sign"),
    "request.page": answer(server.Reply(b"<p>later"), "--sign"),
    "call.page": answer(server.Reply(b"<p>later")),
    "request.refused": answer(server.Reply(b"{}", status="401 Unauthorized"), "--sign"),
    "route.off": setting("network", "default_gateway", "down"),
    "certificate.expires": certificate_for_days(-A_DAY, 12 * A_DAY),
    "ca-bundle.expires": bundle_for_days,
    "tls.expires": store_for_days,
    "clock.early": certificate_for_days(A_DAY, 2 * A_DAY),
    "time.differs": store_of_another_time,
    "settings.encoding": with_line(lambda text: "\ufeff" + text),
    "settings.syntax": with_line(lambda text: text + "[network\n"),
    "settings.value": setting("system", "vantor_server_type", "many"),
    "settings.unknown": with_line(lambda text: text + "[system]\nspeed=1\n"),
    "settings.double": with_line(lambda text: text + "[network]\ndefault_gateway=up\n[network]\ndefault_gateway=up\n"),
    "settings.not-set": setting("system", "vantor_server_type", None),
    "settings.open": open_settings,
    "key-material.left": material_left,
    "ping.stopped": stopped,
    "name.not-owned": nobody,
}


@pytest.mark.parametrize("name", BREAKS)
def test_a_device_that_is_broken_so_is_diagnosed_as_the_page_says(scene, name):
    row = page.ROWS[name]
    found = BREAKS[name](scene)
    check = {each["id"]: each for each in found.values()}.get(name)
    assert check is not None and check["outcome"] in ILL, found
    assert [words for words in row.cure if words not in check["cure"]] == []
    said = "\n".join(str(record) for record in scene.process.log()) if scene.process else ""
    assert [words for words in row.journal if words not in said] == []


def blank_in_an_argument(scene):
    scene.start()
    scene.caller.call("get_product_list", "an app", "0", "c")


def call(reply):
    def broken(scene):
        scene.start()
        scene.store.answer = reply
        scene.caller.call("get_product_list", "a", "0", "c", timeout=120)

    return broken


NUMBERS = {
    1: call(server.Raw(b"no answer of HTTP\r\n")),
    3: blank_in_an_argument,
    6: BREAKS["name-lookup.unknown"],
    7: BREAKS["tcp.not-connected"],
    18: call(server.Truncate(b"{}", missing=1)),
    23: call(server.Endless()),
    35: wrong_pin(),
    52: call(server.Raw()),
    56: call(server.Reset()),
    60: bundle_of_another,
    77: no_bundle,
}
if os.environ.get("BILLING_LONG") == "1":
    NUMBERS[28] = call(server.Hang())


@pytest.mark.parametrize("number", NUMBERS)
def test_a_transfer_that_fails_so_has_the_number_of_the_page(scene, number):
    assert number in page.NUMBERS
    NUMBERS[number](scene)
    assert [text for text in scene.process.failures() if f"ErrorCode = {number};" in text], scene.process.log()


def test_an_answer_that_is_cut_off_without_the_close_alert_of_tls_has_one_of_two_numbers(scene):
    """libcurl up to 7.88 reports 18, as with the alert; 8.14 reports an error of the connection."""
    call(server.Truncate(b"{}", missing=1, alert=False))(scene)
    (said,) = scene.process.failures()
    assert re.search(r"ErrorCode = (18|56);", said), said


def test_each_number_is_tried():
    """Number 28, which takes 90 seconds, is tested in the long form."""
    assert set(NUMBERS) | {28} == page.NUMBERS


# Words of systemd and OpenSSL, and the name of a field.
NOT_OURS = {"status=127", "status=226/NAMESPACE", "status=228/SECCOMP", "SIGKILL", "alert decrypt error", "ErrMsg"}


def test_the_further_tables_quote_messages_of_the_service():
    """Compares the quoted messages without the parts that are filled in: names, numbers, and their placeholders."""
    folders = ("service", "platform/curl", "platform/keystore", "platform/linux", "platform/process")
    sources = "\n".join(
        file.read_text(encoding="utf-8") for folder in folders for file in sorted((TESTS.parent / folder).rglob("*.cpp"))
    )
    literals = re.sub(r'"\s*\n\s*"', "", sources)
    formats = re.sub(r"%[a-z]+", "\0", literals)
    filled = r":1\.42 \(user 1000\)|'org\.plevo\.billingservice'|\b[NM]\b|\b10000\b|…"
    assert len(page.SAID) > 15
    for words in sorted(set(page.SAID) - NOT_OURS):
        pieces = [piece.strip(" '") for piece in re.split(filled, words)]
        assert [piece for piece in pieces if piece not in formats] == [], words


def test_a_clock_of_1970_is_the_row_of_the_clock(scene):
    assert scene.sees(**preloaded("clock-1970"))["clock"]["id"] == "clock.early"


def test_each_row_is_tried():
    elsewhere = {name for names in ELSEWHERE.values() for name in names}
    for file, names in ELSEWHERE.items():
        text = (TESTS / file).read_text(encoding="utf-8")
        assert [name for name in names if f'"{name}"' not in text] == [], file
    assert set(page.ROWS) == set(BREAKS) | elsewhere
