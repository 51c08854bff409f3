"""The commands of docs/INTEGRATION.md for a new device, and the parties that such a device needs."""
import pathlib
import re
from typing import NamedTuple

TREE = pathlib.Path(__file__).resolve().parents[2]

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

PIN, SO_PIN = "123456", "87654321"

# The operator of the store: its server demands a certificate of its authority, and the authority signs requests.
STORE = """\
import http.server, json, pathlib, ssl
class Answer(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        peer = self.connection.getpeercert()
        body = json.dumps({"asked by": dict(peer["subject"][0])["commonName"], "serial": peer["serialNumber"]}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    do_HEAD = do_GET
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain("server.pem", "server.key")
context.load_verify_locations("ca.pem")
context.verify_mode = ssl.CERT_REQUIRED
port = pathlib.Path("port")
server = http.server.ThreadingHTTPServer(("127.0.0.1", int(port.read_text()) if port.exists() else 0), Answer)
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


def renewal():
    """@return the blocks of docs/RENEWAL.md by their names"""
    page = (TREE / "docs/RENEWAL.md").read_text(encoding="utf-8")
    return dict(re.findall(r"```(?:sh)? ([a-z-]+)\n(.*?)```", page, re.DOTALL))


class Documented(NamedTuple):
    """Content of the page: commands by block, settings, and the doctor's command."""

    folders: str
    token: str
    request: str
    install: str
    sealed: str
    keystore: str
    doctor: str


def documented():
    """@return the commands of docs/INTEGRATION.md for a new device"""
    page = (TREE / "docs/INTEGRATION.md").read_text(encoding="utf-8")
    section = page.split("## From nothing to a first answer")[1].split("\n## ")[0]
    blocks = re.findall(r"```sh\n(.*?)```", section, re.DOTALL)
    keystore = re.search(r"```\n(\[deployment\].*?)```", section, re.DOTALL)[1]
    doctor = re.search(r"```\n(billingctl doctor.*?)\n```", section, re.DOTALL)[1]
    (sealed,) = re.findall(r"```sh sealed\n(.*?)```", section, re.DOTALL)
    assert len(blocks) == 4
    return Documented(*blocks, sealed, keystore, doctor)
