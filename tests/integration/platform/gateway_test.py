"""The default gateway by the kernel's routing tables, and its changes, in network namespaces of the test."""
import os
import subprocess

import pytest

PROBE = os.environ["PLATFORM_PROBE"]
NAMESPACE = ["unshare", "--net"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
# A veth pair: two connected network devices, both up.
CABLE = """
ip link set lo up
ip link add v0 type veth peer name v1
ip link set v0 up
ip link set v1 up
ip addr add 10.9.0.2/24 dev v0
ip -6 addr add fd09::2/64 dev v0 nodad
"""

# Without the addresses that the kernel adds by itself some seconds later.
QUIET_CABLE = "".join(
    f"ip link set {line.split()[3]} addrgenmode none\n{line}" if line.endswith(" up\n") else line
    for line in CABLE.splitlines(keepends=True)
)


def settings(tmp_path, rule):
    path = tmp_path / "device.conf"
    path.write_text(f"[network]\n{rule}\n")
    return {**os.environ, "PLEVO_DEVICE_CONF": str(path)}


def gateway(tmp_path, commands, rule="default_gateway=auto"):
    """Runs the commands in a network namespace.
    @return return value and answer of the platform there
    """
    if subprocess.run(NAMESPACE + ["true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("no network namespace can be had here (needs root or user namespaces)")
    done = subprocess.run(
        NAMESPACE + ["sh", "-e", "-c", f'{commands}\n"$0" gateway', PROBE],
        env=settings(tmp_path, rule),
        stdout=subprocess.PIPE,
        timeout=60,
        check=True,
    )
    code, exists = done.stdout.split()
    return int(code), int(exists)


@pytest.mark.parametrize(
    "route",
    [
        "ip route add default via 10.9.0.1",
        "ip route add default dev v0 scope link",
        "ip -6 route add default via fd09::1",
        "ip -6 route add default dev v0",
        "ip route add default nexthop via 10.9.0.1 nexthop via 10.9.0.3",
        "ip route add unreachable default metric 50; ip route add default via 10.9.0.1 metric 90",
        "ip route add default nexthop dev lo nexthop via 10.9.0.1",
    ],
)
def test_a_default_route_is_seen(tmp_path, route):
    assert gateway(tmp_path, CABLE + route) == (0, 1)


@pytest.mark.parametrize(
    "route",
    [
        "",
        "ip route add 10.0.0.0/8 via 10.9.0.1; ip route add 0.0.0.0/1 via 10.9.0.1",
        "ip route add unreachable default",
        "ip route add blackhole default",
        "ip route add prohibit default",
        "ip -6 route add unreachable default metric 3",
        "ip route add default dev lo",
        "ip -6 route add default dev lo",
        "ip route add default via 10.9.0.1 table 77",
        "ip route add default via 10.9.0.1; ip route del default",
    ],
)
def test_what_leads_nowhere_is_not_a_default_route(tmp_path, route):
    assert gateway(tmp_path, CABLE + route) == (0, 0)


def test_a_cable_that_is_pulled_takes_the_way_out_away(tmp_path):
    routes = "ip route add default via 10.9.0.1; ip -6 route add default via fd09::1\n"
    out = "for i in $(seq 50); do ip link show v0 | grep -q NO-CARRIER && break; sleep 0.1; done"
    assert gateway(tmp_path, CABLE + routes + "ip link set v1 down\n" + out) == (0, 0)
    assert gateway(tmp_path, CABLE + routes + "ip link set v0 down") == (0, 0)


def test_a_device_without_any_network_has_no_gateway(tmp_path):
    assert gateway(tmp_path, "") == (0, 0)


def test_auto_is_the_rule_when_none_is_set(tmp_path):
    assert gateway(tmp_path, CABLE + "ip route add default via 10.9.0.1", rule="") == (0, 1)
    assert gateway(tmp_path, CABLE, rule="") == (0, 0)


def test_the_settings_may_say_otherwise(tmp_path):
    assert gateway(tmp_path, CABLE, rule="default_gateway=up") == (0, 1)
    route = "ip route add default via 10.9.0.1"
    assert gateway(tmp_path, CABLE + route, rule="default_gateway=down") == (0, 0)
    assert gateway(tmp_path, CABLE + route, rule="default_gateway=error:19") == (19, 0)


def test_a_process_without_a_free_descriptor_gets_an_error_number(tmp_path):
    # A leak check at the end would need descriptors.
    env = {**settings(tmp_path, "default_gateway=auto"), "ASAN_OPTIONS": "detect_leaks=0"}
    done = subprocess.run([PROBE, "starved"], env=env, stdout=subprocess.PIPE, timeout=60, check=True)
    assert done.stdout == b"24 0\n"


def test_many_routes_take_several_messages(tmp_path):
    many = "for i in $(seq 2000); do echo route add 11.$((i/250)).$((i%250)).0/24 dev v0; done"
    commands = CABLE + f"{many} | ip -batch -\n"
    assert gateway(tmp_path, commands) == (0, 0)
    assert gateway(tmp_path, commands + "ip route add default via 10.9.0.1") == (0, 1)


def changes(tmp_path, before, commands):
    """Runs the commands in a network namespace.
    @return for each one whether the platform reported a change of the network
    """
    if subprocess.run(NAMESPACE + ["true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("no network namespace can be had here (needs root or user namespaces)")
    # The kernel reports a part of `before` late, after the first answer at the latest.
    script = f'{before}\ncoproc PROBE {{ "$0" changes; }}\nread -u "${{PROBE[0]}}" line\n' + "".join(
        f'{command}\nprintf x >&"${{PROBE[1]}}"\nread -u "${{PROBE[0]}}" line\necho $line\n'
        for command in ["sleep 1", *(f"{command}\nsleep 0.3" for command in commands)]
    )
    done = subprocess.run(
        NAMESPACE + ["bash", "-e", "-c", script, PROBE],
        env=settings(tmp_path, ""),
        stdout=subprocess.PIPE,
        timeout=60,
        check=True,
    )
    return [answer == b"1" for answer in done.stdout.split()[1:]]


def test_a_change_of_address_default_route_or_link_is_reported_once(tmp_path):
    told = changes(
        tmp_path,
        QUIET_CABLE,
        [
            "true",
            "ip route add default via 10.9.0.1",
            "true",
            "ip route del default",
            "ip -6 route add default via fd09::1",
            "true",
            "ip addr add 10.9.0.7/24 dev v0",
            "ip addr del 10.9.0.7/24 dev v0",
            "true",
            "ip link set v0 down",
            "true",
        ],
    )
    assert told == [False, True, False, True, True, False, True, True, False, True, False]


def test_what_leaves_the_way_out_as_it_is_is_no_change(tmp_path):
    told = changes(
        tmp_path,
        QUIET_CABLE + "ip -6 addr add fd08::2/64 dev v0 valid_lft 900 preferred_lft 800 nodad\nip link set v0 alias first\n",
        [
            "ip route add 10.77.0.0/16 via 10.9.0.1",
            "ip -6 addr change fd08::2/64 dev v0 valid_lft 1000 preferred_lft 900",
            "ip neigh flush all",
        ],
    )
    assert told == [False, False, False]
