"""The commands of docs/INTEGRATION.md, taken from the page, set up a device on a bare Debian."""
from first_answer import PIN, SETTINGS, SIGN, SO_PIN, STORE, documented


def test_a_device_is_made_as_the_page_says_and_the_doctor_finds_nothing(installed):
    page = documented()
    work = installed.root / "tmp" / "home"
    work.mkdir()
    for name, text in (
        ("store.py", STORE),
        ("sign.py", SIGN),
        ("device.conf", SETTINGS + page.keystore),
        ("pin", PIN),
        ("so-pin", SO_PIN),
    ):
        (work / name).write_text(text, encoding="utf-8")
    said = installed.do(
        "\n".join(
            [
                # The shell traces its commands, so a PIN among their arguments would be in its output.
                "cd /tmp/home && chmod 600 pin so-pin && exec 2>shown && set -x",
                "billing-provision lab made --host localhost >/dev/null",
                "cp made/ca.pem made/ca.key made/server.pem made/server.key .",
                "python3 store.py 2>store.log & while [ ! -e port ]; do sleep 0.1; done",
                'sed -i "s/PORT/$(cat port)/" device.conf',
                page.folders,
                page.token,
                page.request,
                "python3 sign.py",
                page.install,
                "mkdir -p /run/dbus && dbus-daemon --system --nopidfile",
                # The command replaces the unit and uses its environment.
                "setpriv --reuid=billing-service --regid=billing-service --clear-groups /usr/libexec/billing-service 2>log &",
                "for i in $(seq 100); do grep -q 'was acquired' log && break; sleep 0.1; done",
                page.doctor + " 2>&1 || { cat log store.log shown; exit 1; }",
                "runuser -u app -g app -G billing -- billingctl check-server-availability --raw",
                "runuser -u billing-service -- sh -c 'echo x >/etc/plevo/tokens/x' 2>&1 || echo read only",
                "rm -r /opt/down /usr/apps /etc/plevo/*",
            ]
        )
    )
    assert "failed" not in said.split("asked by")[0], said
    assert '{"asked by": "' in said
    shown = (work / "shown").read_text(encoding="utf-8")
    assert "billing-provision token" in shown and PIN not in shown and SO_PIN not in shown
    assert said.endswith("read only\n")
