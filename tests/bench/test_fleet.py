"""The simulated fleet loses no TV, and each client behaves as described."""
import dataclasses
import math
import pathlib
import subprocess

import pytest
from measure import fleet

TVS = fleet.Fleet(1_000_000)
DAEMON = fleet.CLIENTS[0]
BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"


def changed(**fields):
    return dataclasses.replace(DAEMON, **fields)


def test_every_tv_that_calls_comes_once():
    assert sum(fleet.arrivals(TVS)) == pytest.approx(TVS.size * TVS.calling)
    assert min(fleet.arrivals(TVS)) >= 0


def test_a_longer_way_back_is_a_lower_peak():
    slow = dataclasses.replace(TVS, switched=600)
    assert fleet.run(slow, DAEMON).peak_full < fleet.run(TVS, DAEMON).peak_full / 3


def test_a_fleet_ten_times_as_large_has_a_peak_ten_times_as_high():
    ten = fleet.run(dataclasses.replace(TVS, size=TVS.size * 10), DAEMON)
    assert ten.peak_full == pytest.approx(10 * fleet.run(TVS, DAEMON).peak_full)


@pytest.mark.parametrize(
    "fields, expected",
    [
        ({}, (1, 3)),
        ({"gate": False}, (4, 0)),
        ({"sessions": True}, (0, 4)),
        ({"shared": True}, (1, 0)),
        ({"shared": True, "sessions": True}, (0, 1)),
    ],
)
def test_a_burst_makes_the_handshakes_of_its_client(fields, expected):
    assert fleet.handshakes(TVS, changed(**fields)) == expected


def test_with_processors_enough_nobody_waits_or_fails():
    outcome = fleet.run(TVS, DAEMON, cores=fleet.run(TVS, DAEMON).cores * 1.001)
    assert (outcome.waited, outcome.failed) == (0, 0)
    assert outcome.served == pytest.approx(TVS.size * TVS.calling)


@pytest.mark.parametrize("client", fleet.CLIENTS, ids=lambda client: client.name)
def test_who_comes_is_served_or_fails(client):
    outcome = fleet.run(TVS, client, cores=fleet.run(TVS, client).cores * 0.3)
    assert outcome.failed > 0
    assert outcome.served + outcome.failed == pytest.approx(TVS.size * TVS.calling)
    assert outcome.total <= TVS.size * TVS.calling * (1 + client.repeats) + 1e-6


def test_repeats_bring_more_to_a_store_that_is_too_small_already():
    cores = fleet.run(TVS, DAEMON).cores * 0.3
    assert fleet.run(TVS, DAEMON, cores=cores).total == pytest.approx(TVS.size * TVS.calling)
    assert fleet.run(TVS, changed(patience=10, repeats=3), cores=cores).total > 2 * TVS.size * TVS.calling


def test_nobody_waits_for_a_store_without_end():
    assert fleet.run(TVS, DAEMON, cores=math.inf).waited == 0


def test_the_command_prints_a_line_for_each_fleet_and_client():
    told = subprocess.run([BENCH / "fleet", "--burst", "2"], check=True, capture_output=True, text=True).stdout
    assert len(told.splitlines()) == 1 + 3 * len(fleet.CLIENTS)
