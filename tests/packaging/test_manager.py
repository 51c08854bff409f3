"""The installed unit under a real systemd, on a machine of its own: activation, restart, stop, sandbox, purge."""
import json
import os
import pathlib
import time

import pytest

import manager
from first_answer import PIN, SETTINGS, SIGN, SO_PIN, STORE, TREE, documented

HERE = pathlib.Path(__file__).parent
ASK = "billingctl check-server-availability --raw"
AS_APP = f"runuser -u app -g app -G billing -- {ASK}"
AS_STRANGER = f"runuser -u stranger -g stranger -- {ASK}"
DENIED = "the bus does not let this user call the service"


@pytest.fixture(scope="module")
def needs_systemd(needs_root):
    for program in ("/lib/systemd/systemd", "/usr/bin/nsenter", "/usr/bin/dbus-daemon", "/usr/bin/openssl"):
        if not os.path.exists(program):
            pytest.skip(f"{program} is not installed")
    root = manager.cgroup_root()
    if root is None or not os.access(root, os.W_OK):
        pytest.skip("no control groups of the second version in which a folder may be made")


def prepare(machine):
    """Installation, users and the store that the device asks."""
    machine.do("""
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
    """)
    for name, text in (("store.py", STORE), ("sign.py", SIGN), ("pin", PIN), ("so-pin", SO_PIN)):
        machine.write(f"/tmp/home/{name}", text)
    machine.do("cd /tmp/home && systemd-run --quiet --unit=store --working-directory=$PWD python3 store.py && "
               "while [ ! -e port ]; do sleep 0.1; done")


@pytest.fixture
def machine(needs_systemd, folder, installed):
    """A booted systemd with the installation, and users that may and may not call."""
    try:
        made = manager.Machine(folder / "machine", installed.root)
    except (OSError, PermissionError) as error:
        pytest.skip(f"no systemd of its own on this machine: {error}")
    try:
        prepare(made)
        yield made
    finally:
        made.stop()


def provision(machine, steps, settings):
    """Runs commands of the page. The settings that they need are the page's."""
    port = machine.do("cat /tmp/home/port")
    machine.write("/tmp/home/device.conf", SETTINGS.replace("PORT", port) + settings)
    shown = machine.run("sh", "-exc", "\n".join(["cd /tmp/home && chmod 600 pin so-pin", *steps,
                                                  "systemctl daemon-reload && systemctl reload-or-restart dbus"]))
    assert shown.returncode == 0, shown.stderr
    assert "billing-provision token" in shown.stderr
    # A shell that traces shows the arguments of its commands.
    assert PIN not in shown.stderr and SO_PIN not in shown.stderr


@pytest.fixture
def device(machine):
    page = documented()
    provision(machine, [page.folders, page.token, page.request, "python3 sign.py", page.install], page.keystore)
    return machine


def unit(machine, *properties):
    shown = machine.do("systemctl show billing-service " + " ".join(f"-p {name}" for name in properties))
    return dict(line.split("=", 1) for line in shown.splitlines())


def wait_until(machine, state):
    end = time.monotonic() + 20
    while (found := unit(machine, "ActiveState", "SubState", "MainPID", "Result"))["SubState"] != state:
        assert time.monotonic() < end, (found, machine.do("journalctl -u billing-service -n 50 --no-pager"))
        time.sleep(0.1)
    return found


def test_calls_start_the_unit_and_it_comes_back_and_ends(device):
    assert unit(device, "ActiveState") == {"ActiveState": "inactive"}
    assert '{"asked by": "billing device ' in device.do(AS_APP)
    first = wait_until(device, "running")
    assert device.do(f"stat -c %U /proc/{first['MainPID']}").strip() == "billing-service"

    began = time.monotonic()
    device.do(f"kill -KILL {first['MainPID']}")
    wait_until(device, "auto-restart")
    assert wait_until(device, "running")["MainPID"] != first["MainPID"]
    assert time.monotonic() - began > 0.9
    assert '{"asked by": "billing device ' in device.do(AS_APP)

    began = time.monotonic()
    device.do("systemctl stop billing-service")
    assert time.monotonic() - began < 3
    assert wait_until(device, "dead")["Result"] == "success"
    log = device.do("journalctl -u billing-service -o cat --no-pager")
    assert log.count("--billing service quit!--") == 1
    assert "is not a known" not in log


def test_the_doctor_finds_nothing_beside_the_unit(device):
    device.do("systemctl start billing-service")
    said = device.do(documented().doctor)
    assert "\nfailed" not in said and "\nok           key " in said, said


def test_a_sealed_key_is_imported_and_gone_before_the_service_starts(machine):
    page = documented()
    machine.write("/tmp/home/maker.conf", "[keystore]\nseal_key=/tmp/home/seal.key\n")
    machine.do("""cd /tmp/home
        openssl req -quiet -new -newkey rsa:2048 -nodes -keyout key.pem -out device.csr -subj '/CN=sealed device' ||
            openssl req -new -newkey rsa:2048 -nodes -keyout key.pem -out device.csr -subj '/CN=sealed device'
        python3 sign.py
        billing-provision --conf $PWD/maker.conf seal --certificate device.crt --key key.pem --out key-material
        rm key.pem""")
    settings = page.keystore.replace("[keystore]", "key_material=/etc/plevo/key-material\n[keystore]")
    modes = "stat -c '%U %a' /etc/plevo/key-material /etc/plevo/seal.key >modes"
    provision(machine, [page.folders, page.token, page.sealed.replace("billing-provision import",
                                                                      modes + "\nbilling-provision import"),
                        page.install], settings + "seal_key=/etc/plevo/seal.key\n")
    assert machine.do("cat /tmp/home/modes") == "root 600\n" * 2
    assert '{"asked by": "sealed device"}' in machine.do(AS_APP)
    left = machine.do("find / -xdev \\( -name key-material -o -name seal.key \\) -not -path '/tmp/home/made/*' "
                      "-not -path '/proc/*'; find /tmp/home -maxdepth 1 -name 'seal.key'")
    assert left == ""


PROBE = """
cp /usr/local/lib/systemd/system/billing-service.service /etc/systemd/system/probe.service
cd /etc/systemd/system
sed -i -e '/^BusName=/d' -e 's/^Type=.*/Type=oneshot/' -e '/^Restart/d' -e 's|^ExecStart=.*|ExecStart={program}|' \
    -e '/^\\[Install/,$d' probe.service
printf '%s\n' StandardOutput=file:/run/probe.out StandardError=file:/run/probe.err {more} >>probe.service
systemctl daemon-reload
systemctl start probe || {{ cat /run/probe.err; exit 1; }}
cat /run/probe.out
"""


def test_the_unit_s_sandbox_forbids_what_its_directives_say(device):
    device.write("/usr/local/lib/probe.py", (HERE / "probe.py").read_text(encoding="utf-8"))
    other = device.do("touch /tmp/outside; systemctl show -p MainPID --value store").strip()
    asked = f"/usr/bin/python3 /usr/local/lib/probe.py {other} /tmp/outside /var/lib/billing-service /etc/plevo"
    # The probe is a program in Python; the daemon needs no interpreter.
    said = json.loads(device.do(PROBE.format(program=asked, more="ExecPaths=/usr/bin/python3")))
    assert said.pop("writes its own state") == "done"
    user = device.do("id -u billing-service; id -g billing-service").split()
    assert said.pop("is") == [int(number) for number in user]
    assert {what for what, outcome in said.items() if outcome == "done"} == set()
    free = json.loads(device.do(asked))
    shown = {what for what in said if free[what] == "done"}
    print("refused by the machine too:", sorted(set(said) - shown))
    assert {what for what in said if what.startswith(("NoExecPaths", "memfd", "ReadOnlyPaths"))} <= shown


def test_no_program_but_the_daemon_runs_in_the_unit(device):
    for program in ("/bin/sh -c true", "/usr/bin/python3 -c 1", "/usr/local/bin/billingctl --version"):
        done = device.run("sh", "-ec", PROBE.format(program=program, more=""))
        assert done.returncode != 0 and device.do("systemctl show -p ExecMainStatus --value probe").strip() == "203"


def test_anybody_may_have_the_service_started_and_nobody_else_is_answered(device):
    start = ("dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
             "org.freedesktop.DBus.StartServiceByName string:org.plevo.billingservice uint32:0")
    assert DENIED in device.run("sh", "-c", AS_STRANGER).stderr
    assert unit(device, "ActiveState") == {"ActiveState": "inactive"}
    device.do(f"runuser -u stranger -g stranger -- {start}")
    wait_until(device, "running")
    assert DENIED in device.run("sh", "-c", AS_STRANGER).stderr


def maintain(machine, script, argument, prefix=""):
    """Runs a script of the package, for the place where the daemon is here."""
    text = (TREE / f"debian/billing-service.{script}").read_text(encoding="utf-8")
    assert "#DEBHELPER#" in text
    machine.write("/run/maintain", text.replace("/usr/libexec/", "/usr/local/libexec/"))
    machine.do(f"{prefix} sh /run/maintain {argument}")


def daemons(machine):
    return machine.do("for p in /proc/[0-9]*; do [ \"$(readlink $p/exe)\" != /usr/local/libexec/billing-service ] || "
                      "echo $p; done").split()


def test_a_purge_beside_a_running_daemon_leaves_no_file_to_a_number_without_a_name(device):
    device.do(AS_APP)
    assert len(daemons(device)) == 1
    maintain(device, "prerm", "remove")
    assert daemons(device) == []
    device.do("rm /usr/local/lib/systemd/system/billing-service.service")
    maintain(device, "postrm", "purge")
    assert device.do("ls -d /var/lib/billing-service || true") == ""
    assert device.do("stat -c '%U %a' /etc/plevo/pin") == "billing-service 600\n"
    device.do("useradd --system next")
    assert device.do("find /etc /opt /srv /usr/apps /var -xdev \\( -nouser -o -nogroup -o -user next \\)") == ""


@pytest.mark.parametrize("argument", ["remove", "upgrade 2"])
def test_no_old_daemon_goes_on_where_there_is_no_systemd(device, argument):
    device.do("systemd-run --quiet --uid=billing-service --unit=by-hand /usr/local/libexec/billing-service; sleep 0.5")
    assert len(daemons(device)) == 1
    maintain(device, "prerm", argument, "unshare --mount sh -c 'mount -t tmpfs tmpfs /run/systemd; exec \"$@\"' x")
    assert daemons(device) == []
