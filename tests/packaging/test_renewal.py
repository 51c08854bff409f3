"""The commands of docs/RENEWAL.md, run unchanged on a booted device."""
import json

import pytest

from booted import AS_APP, provision
from first_answer import documented, renewal

PAGE = renewal()
CONNECT = 'import socket; socket.create_connection(("127.0.0.1", int(open("port").read())))'
SERVER = "cp made/server.pem made/server.key . && systemctl restart store"


def home(machine, *steps):
    return machine.do("\n".join(["cd /tmp/home", *steps]))


def answer(machine):
    """@return name and serial number of the client's certificate, as the store reports them"""
    found = json.loads(machine.do(AS_APP))
    return found["asked by"], found["serial"]


def status(machine):
    done = machine.run("billing-provision", "status")
    return done.returncode, done.stdout


@pytest.fixture
def device(booted_device):
    return booted_device


def test_a_certificate_is_renewed_for_the_same_key_and_taken_back(device):
    name, serial = first = answer(device)
    home(device, PAGE["renew"], "python3 sign.py", PAGE["renewed"])
    renewed = answer(device)
    assert renewed[0] == name and renewed[1] != serial
    home(device, PAGE["renew-back"])
    assert answer(device) == first


def test_a_new_key_takes_over_from_the_old_one_and_gives_way_again(device):
    first = answer(device)
    home(device, PAGE["rekey"])
    assert answer(device) == first
    home(device, "python3 sign.py")
    # After a power cut in the middle the status reports the mismatch, and the running service still uses the old pair.
    before, after = PAGE["rekeyed"].split("mv ", 1)
    home(device, before)
    assert status(device)[0] == 4 and answer(device) == first
    home(device, "mv " + after)
    rekeyed = answer(device)
    assert rekeyed[0] == first[0] and rekeyed[1] != first[1]
    code, said = status(device)
    assert code == 0 and "00000007, RSA" in said and "00000008, RSA with 2048 bits, [deployment] key_id" in said
    home(device, PAGE["rekey-back"])
    assert answer(device) == first and status(device)[0] == 0


def test_a_sealed_key_takes_over_from_the_old_one(device):
    first = answer(device)
    device.write("/tmp/home/maker.conf", "[keystore]\nseal_key=/tmp/home/seal.key\n")
    home(
        device,
        "openssl req -new -newkey rsa:2048 -nodes -keyout key.pem -out device.csr -subj '/CN=sealed anew'",
        "python3 sign.py",
        "billing-provision --conf $PWD/maker.conf seal --certificate device.crt --key key.pem --out key-material",
        "rm key.pem",
        PAGE["reseal"],
        PAGE["rekeyed"],
    )
    assert answer(device)[0] == "sealed anew"
    assert device.do("ls /etc/plevo").split() == ["before.conf", "device.conf", "pin", "softhsm2.conf", "tokens"]
    home(device, PAGE["rekey-back"])
    assert answer(device) == first


def test_a_pin_is_changed_and_changed_back(device):
    first = answer(device)
    device.write("/tmp/home/new-pin", "another-pin-4711")
    home(device, "chmod 600 new-pin", PAGE["pin"])
    assert answer(device) == first
    assert device.do("stat -c '%U %a' /etc/plevo/pin; cat /etc/plevo/pin") == "billing-service 600\nanother-pin-4711\n"
    home(device, PAGE["pin"].replace("new-pin", "pin"))
    assert answer(device) == first


def test_the_store_gets_another_authority_and_the_old_one_back_without_a_restart(device):
    first = answer(device)
    process = device.do("systemctl show -p MainPID --value billing-service")
    home(
        device,
        "billing-provision lab other --host localhost >/dev/null 2>&1",
        "cp other/ca.pem new-ca.pem",
        PAGE["authorities"],
    )
    assert answer(device) == first
    home(device, SERVER.replace("made/", "other/"), f"until python3 -c '{CONNECT}' 2>/dev/null; do sleep 0.1; done")
    assert answer(device) == first
    alone = PAGE["authorities"].replace("cat ca.pem new-ca.pem", "cat new-ca.pem")
    home(device, alone)
    assert answer(device) == first
    home(device, alone.replace("new-ca.pem", "ca.pem"))
    assert device.run("sh", "-c", AS_APP).returncode != 0
    assert device.do("systemctl show -p MainPID --value billing-service") == process


SLOT = """
mkdir -p /run/slot-{name}/upper /run/slot-{name}/work
mount -t overlay overlay -o lowerdir=/usr,upperdir=/run/slot-{name}/upper,workdir=/run/slot-{name}/work /usr
echo {name} >/usr/slot
mount -o remount,bind,ro /usr
"""
PLACE = "/usr/apps/org.plevo.billing-api/res/certificate"


def image(machine, *made):
    """Turns the running system into one with a read-only /usr and a data partition."""
    machine.do("mkdir -p /data && mount -t tmpfs tmpfs /data")
    machine.write("/tmp/fstab", PAGE["fstab"])
    machine.do(
        "\n".join(
            [
                PAGE["numbers"],
                PAGE["data"],
                *made,
                f"mkdir -p /etc/plevo /var/lib/billing-service /opt/down/cert {PLACE}",
                SLOT.format(name="a"),
            ]
        )
    )


def factory(machine):
    page = documented()
    provision(machine, [page.folders, page.token, page.request, "python3 sign.py", page.install], page.keystore)


def test_a_device_with_two_slots_keeps_what_is_its_own_over_an_update(machine):
    image(machine)
    said = machine.run("touch", f"{PLACE}/x").stderr
    assert "Read-only file system" in said
    machine.do("mount --all --fstab /tmp/fstab")
    factory(machine)
    first = answer(machine)
    assert machine.do("id -u billing-service; getent group billing | cut -d: -f3") == "790\n791\n"
    machine.do(
        "systemctl stop billing-service; umount --recursive --lazy /usr\n"
        + SLOT.format(name="b")
        + "mount --all --fstab /tmp/fstab; cat /usr/slot"
    )
    assert answer(machine) == first and status(machine)[0] == 0
    home(machine, PAGE["renew"], "python3 sign.py", PAGE["renewed"])
    assert answer(machine)[1] != first[1]


def test_a_link_into_the_data_partition_takes_the_place_of_a_mount(machine):
    image(machine, PAGE["link"])
    machine.do("grep -v certificate /tmp/fstab >/tmp/three && mount --all --fstab /tmp/three")
    factory(machine)
    first = answer(machine)
    assert machine.do(f"ls {PLACE}; readlink {PLACE}/bgclient.crt; ls /data/billing/certificate") == (
        "bgclient.crt\n/data/billing/certificate/bgclient.crt\nbgclient.crt\n"
    )
    home(machine, PAGE["renew"], "python3 sign.py", PAGE["renewed"])
    assert answer(machine)[1] != first[1]


def test_a_certificate_on_a_read_only_file_system_is_refused_with_the_way_out(device):
    device.do(SLOT.format(name="a"))
    done = device.run("billing-provision", "install", "--force", "/tmp/home/device.crt")
    assert done.returncode == 1
    assert done.stderr.endswith(
        "Read-only file system; name a writable place with --to or --out, or make a link or a mount of one there\n"
    )


def test_a_factory_reset_takes_the_user_s_and_leaves_the_device_s(device):
    first = answer(device)
    device.do(
        "runuser -u billing-service -- sh -c 'mkdir -p -m 700 /var/lib/billing-service/store /var/lib/billing-service/tpm;"
        " touch /var/lib/billing-service/store/named'"
    )
    settings = device.do("cat /etc/plevo/device.conf")
    device.write("/etc/plevo/device.conf", settings.replace("[runtime]", "[account]\nguid=mine\n[runtime]", 1))
    home(device, PAGE["reset"])
    assert device.do("ls /var/lib/billing-service; grep -c guid /etc/plevo/device.conf || true") == "tpm\n0\n"
    assert answer(device) == first
