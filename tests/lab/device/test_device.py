"""The device's settings file: the settings that a switch changes, and those that it keeps."""
import pytest
from billing_lab.device import device

FILE = """# made by hand
[config]
db/comss/countrycode=US
mine=50%=a
[account]
login_id=u
guid=g
auth_token=t
"""


def test_a_switch_changes_its_value_and_no_other(tmp_path):
    file = tmp_path / "device.conf"
    file.write_text(FILE)
    device.change(file, device.switched("country", "DE", [], "token"))
    assert device.read(file) == {
        "config": {"db/comss/countrycode": "DE", "mine": "50%=a"},
        "account": {"login_id": "u", "guid": "g", "auth_token": "t"},
    }
    device.change(file, device.switched("signed-out", "", [], "token"))
    assert device.read(file)["account"] == {}


def test_a_reader_sees_the_old_file_or_the_new_one(tmp_path):
    file = tmp_path / "device.conf"
    file.write_text(FILE)
    with open(file, encoding="utf-8") as before:
        device.change(file, {device.COUNTRY: "DE"})
        assert before.read() == FILE
    assert [entry.name for entry in tmp_path.iterdir()] == ["device.conf"]
    assert file.stat().st_mode & 0o777 == 0o600


def test_an_unset_server_is_the_sandbox_as_it_is_for_the_service():
    said = {
        value: device.describe({"system": {"vantor_server_type": value}}, "t")["server"] for value in ("", "0", "1", "2", "3")
    }
    assert said == {"": "sandbox", "0": "production", "1": "sandbox", "2": "sandbox", "3": "production"}


def test_a_short_language_stands_for_its_own_country():
    assert [
        device.switched("language", language, [], "t")[device.LANGUAGE] for language in ("de", "fr", "de_AT.utf8", "none")
    ] == ["de", "fr_FR.utf8", "de_AT.utf8", None]


def test_a_locale_may_be_spelled_as_the_shell_s():
    assert device.switched("language", "de_DE.UTF-8", [], "t") == device.switched("language", "de_DE.utf8", [], "t")
    for wrong in ("de_DE", "de_DE.latin1", "de.UTF-8", "de_DE.utf8.UTF-8", "de_DE.UTF-8.utf8"):
        with pytest.raises(device.DeviceError, match="is no locale"):
            device.switched("language", wrong, [], "t")
