"""A device with a booted systemd: its set-up, and questions to it."""
import time

from first_answer import PIN, SETTINGS, SIGN, SO_PIN, STORE

ASK = "billingctl check-server-availability --raw"
AS_APP = f"runuser -u app -g app -G billing -- {ASK}"
NAMED = '{"asked by": "billing device '


def prepare(machine):
    """Sets up the installation, the users, and the store that the device calls."""
    machine.do(
        """
        cp -a /tmp/installed/. /
        # The bus of the machine looks below /usr alone; the prefix of the build is another one.
        for kind in system.d system-services; do cp /usr/local/share/dbus-1/$kind/org.plevo.* /usr/share/dbus-1/$kind/; done
        # An image for containers may forbid packages to start and stop anything.
        rm -f /usr/sbin/policy-rc.d
        useradd -m app && useradd -m stranger
        systemctl daemon-reload
        mkdir /tmp/home && cd /tmp/home
        billing-provision lab made --host localhost >/dev/null 2>&1
        cp made/ca.pem made/ca.key made/server.pem made/server.key .
    """
    )
    for name, text in (("store.py", STORE), ("sign.py", SIGN), ("pin", PIN), ("so-pin", SO_PIN)):
        machine.write(f"/tmp/home/{name}", text)
    machine.do(
        "cd /tmp/home && systemd-run --quiet --unit=store --working-directory=$PWD python3 store.py && "
        "while [ ! -e port ]; do sleep 0.1; done"
    )


def provision(machine, steps, settings):
    """Runs commands of the page, with the settings that the page gives for them."""
    port = machine.do("cat /tmp/home/port")
    machine.write("/tmp/home/device.conf", SETTINGS.replace("PORT", port) + settings)
    shown = machine.run(
        "sh",
        "-exc",
        "\n".join(
            ["cd /tmp/home && chmod 600 pin so-pin", *steps, "systemctl daemon-reload && systemctl reload-or-restart dbus"]
        ),
    )
    assert shown.returncode == 0, shown.stderr
    assert "billing-provision token" in shown.stderr
    # The shell traces its commands, so a PIN among their arguments would be in its output.
    assert PIN not in shown.stderr and SO_PIN not in shown.stderr


def unit(machine, *properties):
    shown = machine.do("systemctl show billing-service " + " ".join(f"-p {name}" for name in properties))
    return dict(line.split("=", 1) for line in shown.splitlines())


def wait_until(machine, state):
    end = time.monotonic() + 20
    while (found := unit(machine, "ActiveState", "SubState", "MainPID", "Result"))["SubState"] != state:
        assert time.monotonic() < end, (found, machine.do("journalctl -u billing-service -n 50 --no-pager"))
        time.sleep(0.1)
    return found
