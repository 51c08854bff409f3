"""The installed unit under a real systemd, on a machine of its own: activation, restart, stop, sandbox, purge."""
import json
import pathlib
import re
import time

import pytest

from booted import AS_APP, ASK, NAMED, provision, unit, wait_until
from first_answer import TREE, documented
from manager import Machine, Refused

HERE = pathlib.Path(__file__).parent
AS_STRANGER = f"runuser -u stranger -g stranger -- {ASK}"
DENIED = "the bus does not let this user call the service"


@pytest.fixture
def device(booted_device):
    return booted_device


def test_calls_start_the_unit_and_it_comes_back_and_ends(device):
    assert unit(device, "ActiveState") == {"ActiveState": "inactive"}
    assert NAMED in device.do(AS_APP)
    first = wait_until(device, "running")
    assert device.do(f"stat -c %U /proc/{first['MainPID']}").strip() == "billing-service"
    # The printed version is that of the running program, although another file has its path now.
    daemon = "/usr/local/libexec/billing-service"
    version = device.do(f"{daemon} --version; mv {daemon} /usr/local/before; touch {daemon}").split()[1]
    assert re.search(rf"^version +{version}$", device.do("billingctl status"), re.MULTILINE)
    device.do(f"mv /usr/local/before {daemon}")

    began = time.monotonic()
    device.do(f"kill -KILL {first['MainPID']}")
    wait_until(device, "auto-restart")
    assert wait_until(device, "running")["MainPID"] != first["MainPID"]
    assert time.monotonic() - began > 0.9
    assert NAMED in device.do(AS_APP)

    began = time.monotonic()
    device.do("systemctl stop billing-service")
    assert time.monotonic() - began < 3
    assert wait_until(device, "dead")["Result"] == "success"
    log = device.do("journalctl -u billing-service -o cat --no-pager")
    assert log.count("--billing service quit!--") == 1
    assert "is not a known" not in log


FOLDER = "$(dirname $(find /usr/local/lib -name libbilling-platform.so.1.0.0))"


def test_callers_are_answered_however_often_it_ends(device):
    for _ in range(8):
        assert NAMED in device.do(AS_APP)
        device.do("kill -KILL $(systemctl show -p MainPID --value billing-service)")
    assert NAMED in device.do(AS_APP)


def test_a_call_waits_for_a_service_that_cannot_start_and_is_answered_after_the_repair(device):
    """A library is missing for a while. The bus waits 25 s for the service that it starts, and then reports an error."""
    device.do(f"mv {FOLDER}/libbilling-platform.so.1 /tmp/away")
    said = device.run("sh", "-c", AS_APP).stderr
    assert "Failed to activate service" in said and "systemctl start billing-service" in said
    device.do(f"systemd-run --quiet --unit=repair sh -c 'sleep 10; mv /tmp/away {FOLDER}/libbilling-platform.so.1'")
    assert NAMED in device.do(AS_APP)
    assert int(unit(device, "NRestarts")["NRestarts"]) > 20


def journalled(machine, since):
    """The service's records in the journal since that time: (records, their size in bytes with journald's own fields)."""
    text = machine.do(
        f"journalctl --sync && journalctl -t BILLING_SERVICE -t BILLING_PLATFORM --no-pager -o export --since=@{since}"
    )
    records = [
        dict(line.split("=", 1) for line in record.splitlines() if "=" in line)
        for record in text.strip().split("\n\n")
        if record
    ]
    return records, len(text)


def test_the_journal_tells_a_call_in_a_few_records_and_who_called(device):
    device.do(AS_APP)
    device.do("journalctl --sync")
    before = device.do("date +%s.%6N").strip()
    device.do(AS_APP)
    records, size = journalled(device, before)
    print(f"{len(records)} records, {size} bytes of export")
    assert len(records) == 4, [record["MESSAGE"] for record in records]
    said = {name: value for record in records for name, value in record.items()}
    assert said["BILLING_METHOD"] == "check_server_availability"
    assert said["BILLING_RESULT"] == "0"
    assert said["BILLING_UID"] == device.do("id -u app").strip()
    assert len({record["BILLING_SENDER"] for record in records if "BILLING_SENDER" in record}) == 1


def test_the_doctor_finds_nothing_beside_the_unit(device):
    device.do("systemctl start billing-service")
    said = device.do(documented().doctor)
    assert "\nfailed" not in said and "\nok           key " in said, said


def test_a_sealed_key_is_imported_and_gone_before_the_service_starts(machine):
    page = documented()
    machine.write("/tmp/home/maker.conf", "[keystore]\nseal_key=/tmp/home/seal.key\n")
    machine.do(
        """cd /tmp/home
        openssl req -quiet -new -newkey rsa:2048 -nodes -keyout key.pem -out device.csr -subj '/CN=sealed device' ||
            openssl req -new -newkey rsa:2048 -nodes -keyout key.pem -out device.csr -subj '/CN=sealed device'
        python3 sign.py
        billing-provision --conf $PWD/maker.conf seal --certificate device.crt --key key.pem --out key-material
        rm key.pem"""
    )
    settings = page.keystore.replace("[keystore]", "key_material=/etc/plevo/key-material\n[keystore]")
    modes = "stat -c '%U %a' /etc/plevo/key-material /etc/plevo/seal.key >modes"
    provision(
        machine,
        [
            page.folders,
            page.token,
            page.sealed.replace("billing-provision import", modes + "\nbilling-provision import"),
            page.install,
        ],
        settings + "seal_key=/etc/plevo/seal.key\n",
    )
    assert machine.do("cat /tmp/home/modes") == "root 600\n" * 2
    assert '{"asked by": "sealed device"' in machine.do(AS_APP)
    left = machine.do(
        "find / -xdev -newer /tmp/home/maker.conf \\( -name key-material -o -name seal.key \\) -not -path '/tmp/home/made/*' "
        "-not -path '/proc/*'; find /tmp/home -maxdepth 1 -name 'seal.key'"
    )
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
    # The probe is a Python program, so the interpreter needs the right to run; the daemon needs none.
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
    start = (
        "dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
        "org.freedesktop.DBus.StartServiceByName string:org.plevo.billingservice uint32:0"
    )
    assert DENIED in device.run("sh", "-c", AS_STRANGER).stderr
    assert unit(device, "ActiveState") == {"ActiveState": "inactive"}
    device.do(f"runuser -u stranger -g stranger -- {start}")
    wait_until(device, "running")
    assert DENIED in device.run("sh", "-c", AS_STRANGER).stderr


def maintain(machine, script, argument, prefix=""):
    """Runs a maintainer script of the package, with the daemon's path on this machine."""
    text = (TREE / f"debian/billing-service.{script}").read_text(encoding="utf-8")
    assert "#DEBHELPER#" in text
    machine.write("/run/maintain", text.replace("/usr/libexec/", "/usr/local/libexec/"))
    machine.do(f"{prefix} sh /run/maintain {argument}")


def daemons(machine):
    return machine.do(
        'for p in /proc/[0-9]*; do [ "$(readlink $p/exe)" != /usr/local/libexec/billing-service ] || ' "echo $p; done"
    ).split()


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


@pytest.mark.parametrize(
    ("setup", "raised"),
    [
        ("echo 'mount: /mnt: permission denied.' >&2; exit 32", Refused),
        ("unknown-command", AssertionError),
        ("echo 'the machine is set up' >&2; echo 'Operation not permitted' >&2; exit 1", AssertionError),
    ],
)
def test_only_a_refusal_of_this_machine_is_no_failure(setup, raised, needs_systemd, folder):
    with pytest.raises(raised):
        Machine(folder / "machine", folder, setup)
