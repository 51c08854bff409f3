"""A device is made on a bare Debian with the commands of docs/INTEGRATION.md, taken from there."""
import re

from machine import TREE

SETTINGS = """\
[config]
db/comss/atoken=token
db/comss/hwduid=duid
db/comss/countrycode=DE
[runtime]
language=de_DE.utf8
[system]
vantor_server_type=0
[network]
default_gateway=up
[deployment]
production_host=localhost:PORT
"""

# Whoever runs the store: its server demands a certificate of its authority, which signs requests.
STORE = """\
import http.server, pathlib, ssl, sys
class Answer(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        body = b'{"asked by": "%s"}' % dict(self.connection.getpeercert()["subject"][0])["commonName"].encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    do_HEAD = do_GET
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain("server.pem", "server.key")
context.load_verify_locations("ca.pem")
context.verify_mode = ssl.CERT_REQUIRED
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Answer)
server.socket = context.wrap_socket(server.socket, server_side=True)
pathlib.Path("port.new").write_text(str(server.server_port))
pathlib.Path("port.new").rename("port")
server.serve_forever()
"""

SIGN = """\
import datetime, pathlib
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
read = lambda name: pathlib.Path(name).read_bytes()
request, ca = x509.load_pem_x509_csr(read("device.csr")), x509.load_pem_x509_certificate(read("ca.pem"))
assert request.is_signature_valid
now = datetime.datetime.utcnow()
certificate = x509.CertificateBuilder(ca.subject, request.subject, request.public_key(), x509.random_serial_number(),
    now - datetime.timedelta(1), now + datetime.timedelta(400)).sign(
    serialization.load_pem_private_key(read("ca.key"), None), hashes.SHA256())
pathlib.Path("device.crt").write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
"""


def documented():
    """The commands of the page, block by block, and the settings that it names."""
    page = (TREE / "docs/INTEGRATION.md").read_text(encoding="utf-8")
    section = page.split("## From nothing to a first answer")[1].split("\n## ")[0]
    blocks = re.findall(r"```sh\n(.*?)```", section, re.DOTALL)
    keystore = re.search(r"```\n(\[deployment\].*?)```", section, re.DOTALL)[1]
    doctor = re.search(r"```\n(billingctl doctor.*?)\n```", section, re.DOTALL)[1]
    assert len(blocks) == 4
    return blocks, keystore, doctor


def test_a_device_is_made_as_the_page_says_and_the_doctor_finds_nothing(installed):
    page = documented()
    work = installed.root / "tmp" / "home"
    work.mkdir()
    for name, text in (("store.py", STORE), ("sign.py", SIGN), ("device.conf", SETTINGS + page.keystore),
                       ("pin", PIN), ("so-pin", SO_PIN)):
        (work / name).write_text(text, encoding="utf-8")
    said = installed.do("\n".join([
        # A shell that traces shows the arguments of its commands.
        "cd /tmp/home && chmod 600 pin so-pin && exec 2>shown && set -x",
        "billing-provision lab made --host localhost >/dev/null",
        "cp made/ca.pem made/ca.key made/server.pem made/server.key .",
        "python3 store.py 2>store.log & while [ ! -e port ]; do sleep 0.1; done",
        'sed -i "s/PORT/$(cat port)/" device.conf',
        page.folders, page.token, page.request, "python3 sign.py", page.install,
        "mkdir -p /run/dbus && dbus-daemon --system --nopidfile",
        # In place of the unit, with its environment.
        "setpriv --reuid=billing-service --regid=billing-service --clear-groups /usr/libexec/billing-service 2>log &",
        "for i in $(seq 100); do grep -q 'was acquired' log && break; sleep 0.1; done",
        page.doctor + " 2>&1 || { cat log store.log shown; exit 1; }",
        "runuser -u app -g app -G billing -- billingctl check-server-availability --raw",
        "runuser -u billing-service -- sh -c 'echo x >/etc/plevo/tokens/x' 2>&1 || echo read only",
        "rm -r /opt/down /usr/apps /etc/plevo/*"]))
    assert "failed" not in said.split("asked by")[0], said
    assert '{"asked by": "' in said
    shown = (work / "shown").read_text(encoding="utf-8")
    assert "billing-provision token" in shown and PIN not in shown and SO_PIN not in shown
    assert said.endswith("read only\n")
