"""Faults: which requests they affect, how often, and that a run can be repeated."""
import statistics

import pytest
from billing_lab.shop import faults
from billing_lab.shop.matching import Asked

ASKED = {
    "endpoint": "apply",
    "app": "a",
    "user": "u",
    "invoice": "i",
    "product": "p",
    "custom_id": "c",
    "headers": (("TvYear", "15"),),
}


def hits(fault, *, times=50, now=0.0, **said):
    return [faults.pick([fault], Asked(**{**ASKED, **said}), now) is not None for _ in range(times)]


def test_a_fault_without_limits_hits_everybody_for_ever():
    assert all(hits(faults.make({"kind": "reset"}, 1, 0.0)))


@pytest.mark.parametrize(
    "limit", [{"endpoint": "confirm"}, {"app": "b"}, {"user": "v"}, {"invoice": "j"}, {"product": "q"}, {"custom_id": "d"}]
)
def test_a_fault_hits_whom_it_is_for(limit):
    fault = faults.make({"kind": "reset", **limit}, 1, 0.0)
    assert not any(hits(fault))
    assert all(hits(fault, **limit))


def test_a_count_is_used_up_by_hits_alone():
    fault = faults.make({"kind": "reset", "count": 2, "user": "u"}, 1, 0.0)
    assert not any(hits(fault, user="v"))
    assert hits(fault, times=3) == [True, True, False]


def test_a_duration_ends():
    fault = faults.make({"kind": "reset", "seconds": 10}, 1, 100.0)
    assert [any(hits(fault, now=now)) for now in (100.0, 109.9, 110.0)] == [True, True, False]


def test_the_first_fault_that_hits_counts():
    made = [faults.make({"kind": kind, "count": 1}, 1, 0.0) for kind in ("reset", "hang")]
    assert [faults.pick(made, Asked("apply"), 0.0).kind for _ in "12"] == ["reset", "hang"]
    assert faults.pick(made, Asked("apply"), 0.0) is None


@pytest.mark.parametrize(
    "header, strikes", [("TvYear", True), ("tvyear: 15", True), ("TvYear: 16", False), ("TvVersion", False)]
)
def test_a_header_is_matched_by_its_name_or_with_its_value(header, strikes):
    assert hits(faults.make({"kind": "reset", "header": header}, 1, 0.0), times=1) == [strikes]


def test_a_method_stands_for_its_endpoint():
    assert all(hits(faults.make({"kind": "reset", "endpoint": "get_applied_time"}, 1, 0.0)))


def test_the_first_requests_that_fit_are_skipped():
    fault = faults.make({"kind": "reset", "skip": 2, "count": 1, "app": "a"}, 1, 0.0)
    assert hits(fault, times=2, app="b") == [False, False]
    assert hits(fault, times=4) == [False, False, True, False]
    assert fault.describe(0.0)["hits"] == 1


def test_faults_of_one_stand_behind_each_other_as_a_sequence():
    made = [faults.make({"kind": kind, "count": 1}, 1, 0.0) for kind in ("status", "pass", "reset")]
    assert [faults.pick(made, Asked("apply"), 0.0).kind for _ in "123"] == ["status", "pass", "reset"]


def test_a_chance_repeats_with_its_seed():
    def run(seed):
        return hits(faults.make({"kind": "reset", "chance": 0.5, "seed": seed}, 1, 0.0))

    assert run(7) == run(7) != run(8)
    assert 10 < sum(run(7)) < 40


def test_damage_repeats_with_its_seed_and_is_damage():
    body = '{"Grüße": "請求"}'.encode()
    for kind in ("malformed", "invalid-utf8"):
        first, second = (faults.damage(faults.make({"kind": kind}, 1, 0.0), body) for _ in "12")
        assert first == second != body


@pytest.mark.parametrize("seed", range(30))
def test_a_malformed_body_is_text_and_an_invalid_one_is_none(seed):
    body = '{"Grüße": "請求"}'.encode()
    cut = faults.damage(faults.make({"kind": "malformed", "seed": seed}, 1, 0.0), body)
    assert body.startswith(cut) and len(cut) < len(body)
    cut.decode()
    with pytest.raises(UnicodeDecodeError):
        faults.damage(faults.make({"kind": "invalid-utf8", "seed": seed}, 1, 0.0), body).decode()


def test_even_an_empty_body_becomes_invalid():
    with pytest.raises(UnicodeDecodeError):
        faults.damage(faults.make({"kind": "invalid-utf8"}, 1, 0.0), b"").decode()


@pytest.mark.parametrize(
    "wanted, said",
    [
        ({}, "None is no fault; known are status, malformed"),
        ({"kind": "fire"}, "'fire' is no fault"),
        ({"kind": "status", "code": 99}, "code is 99; it must be a number from 200 to 599"),
        ({"kind": "status", "code": "500"}, "code is '500'; it must be a number"),
        ({"kind": "reset", "code": 500}, "reset takes no 'code'"),
        ({"kind": "reset", "endpoint": "shop"}, "'shop' is no endpoint; known are country"),
        ({"kind": "reset", "chance": 1.5}, "chance is 1.5; it must be a number from 0 to 1"),
        ({"kind": "reset", "count": 0}, "count is 0"),
        ({"kind": "reset", "chance": 0}, "chance is 0; such a fault would never strike"),
        ({"kind": "reset", "endpoint": "invoices", "app": "a"}, "a request for invoices names no app"),
        ({"kind": "reset", "endpoint": "products", "custom_id": "a"}, "a request for products names no custom id"),
        ({"kind": "refuse-stream", "invoice": "i"}, "refuse-stream cannot strike at payments"),
        ({"kind": "reset", "user": 5}, "user is 5; it must be a text"),
        ({"kind": "reset", "seconds": True}, "seconds is True"),
    ],
)
def test_a_fault_that_cannot_be_is_refused_with_a_reason(wanted, said):
    with pytest.raises(faults.FaultError) as caught:
        faults.make(wanted, 1, 0.0)
    assert said in str(caught.value)


def test_a_reserved_product_forces_its_fault_at_its_endpoint_alone():
    product = "NEVER-SHIP.confirm.status.503"
    fault = faults.of_product(product, "confirm")
    assert (fault.kind, fault.options) == ("status", {"code": 503})
    assert faults.of_product(product, "apply") is None
    assert faults.of_product("coins-100", "confirm") is None


@pytest.mark.parametrize(
    "product, said",
    [
        ("NEVER-SHIP.", "forces nothing"),
        ("NEVER-SHIP.products.reset", "forces nothing"),
        ("NEVER-SHIP.confirm.fire", "'fire' is no fault"),
        ("NEVER-SHIP.confirm.reset.5", "reset takes no '5'"),
        ("NEVER-SHIP.confirm.status.teapot", "status takes no 'teapot'"),
        ("NEVER-SHIP.confirm.status.600", "code is 600"),
        ("NEVER-SHIP.apply.refuse-stream", "refuse-stream cannot strike at apply"),
    ],
)
def test_a_reserved_product_that_forces_nothing_is_refused(product, said):
    with pytest.raises(faults.FaultError) as caught:
        faults.check_product(product)
    assert said in str(caught.value)


@pytest.mark.parametrize("product", ["NEVER-SHIP.buy.declined", "NEVER-SHIP.apply.hang", "NEVER-SHIP.confirm.delay.250"])
def test_reserved_products_that_force_something_are_let_through(product):
    faults.check_product(product)


def drawn(count=2000, **options):
    fault = faults.make({"kind": "delay", **options}, 1, 0.0)
    return [faults.delay_of(fault) for _ in range(count)]


def test_a_delay_is_drawn_from_what_was_asked_for_and_repeats_with_its_seed():
    assert drawn(3, ms=200) == [200, 200, 200]
    spread = drawn(ms=100, spread=50)
    assert all(100 <= each <= 150 for each in spread) and statistics.mean(spread) == pytest.approx(125, abs=2)
    normal = drawn(ms=500, deviation=100, seed=7)
    assert statistics.mean(normal) == pytest.approx(500, abs=10) and statistics.stdev(normal) == pytest.approx(100, abs=10)
    assert min(drawn(ms=1, deviation=1000)) == 0
    listed = drawn(choices=[10, 10, 10, 900])
    assert set(listed) == {10, 900} and listed.count(900) == pytest.approx(500, abs=80)
    assert drawn(ms=500, deviation=100, seed=7) == normal != drawn(ms=500, deviation=100, seed=8)
    kept = faults.make({"kind": "delay", "choices": [1, 2]}, 1, 0.0)
    assert faults.restored(kept.describe(0.0), 0.0, 0).options == {"choices": [1, 2]}


@pytest.mark.parametrize(
    "options, said",
    [
        ({"spread": 1, "deviation": 1}, "leave deviation out"),
        ({"choices": [1], "ms": 5}, "leave ms out"),
        ({"choices": []}, "a list of 1 to 1000 numbers"),
        ({"choices": [1, "2"]}, "choices is '2'; it must be a number from 0 to 600000"),
        ({"choices": 5}, "a list of 1 to 1000 numbers"),
        ({"deviation": -1}, "deviation is -1"),
    ],
)
def test_a_distribution_that_is_none_is_refused(options, said):
    with pytest.raises(faults.FaultError, match=said):
        faults.make({"kind": "delay", **options}, 1, 0.0)
