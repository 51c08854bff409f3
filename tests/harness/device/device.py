"""The device as the daemon sees it: settings file, CA bundle, certificate and key store."""
import copy
import pathlib

from billing_lab.folder import replace_file

TOKEN = "token-8c41"
DUID = "duid-5fb0"
GUID = "guid-a17e"
UID = "uid-93d2"

# Private texts: only the server may get them.
SECRETS = (TOKEN, DUID, GUID, UID)


class Device:
    """A device in a folder of the caller's, with the given credentials. write() makes changes of
    `settings` effective."""

    def __init__(self, folder, credentials, host="localhost:1", sandbox=None):
        folder = pathlib.Path(folder)
        self.file = folder / "device.conf"
        self.credentials = credentials
        self.certificates = folder / "cert"
        self.certificates.mkdir()
        self.settings = copy.deepcopy(
            {
                "config": {
                    "db/comss/atoken": TOKEN,
                    "db/comss/hwduid": DUID,
                    "db/comss/countrycode": "DE",
                    "db/comss/modelid": "model-1",
                    "memory/menu/network/set_time": "1",
                },
                "runtime": {"language": "de_DE.utf8"},
                "system": {"vantor_server_type": "0"},
                "account": {"guid": GUID, "auth_token": "account-token", "login_id": UID},
                "network": {"default_gateway": "up"},
                "deployment": {"production_host": host, "sandbox_host": sandbox or host},
            }
        )
        for group, values in credentials.settings.items():
            self.settings.setdefault(group, {}).update(values)
        self.write()

    def set(self, group, key, value):
        """Changes one setting; None removes it."""
        if value is None:
            self.settings[group].pop(key, None)
        else:
            self.settings.setdefault(group, {})[key] = value
        self.write()

    def write(self):
        lines = []
        for group, values in self.settings.items():
            lines.append(f"[{group}]")
            lines += [f"{key}={value}" for key, value in values.items()]
        self.write_file("\n".join(lines) + "\n")

    def write_file(self, text):
        """Replaces the file in one step, so that no reader sees a part of it."""
        replace_file(self.file, text if isinstance(text, bytes) else text.encode())

    @property
    def ca_file(self):
        return self.certificates / "ca.pem"
