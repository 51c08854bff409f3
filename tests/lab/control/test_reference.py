"""docs/LAB-REFERENCE.md and the OpenAPI description are complete and contain nothing that does not exist."""
import re

from billing_lab import client
from billing_lab.command import cli
from billing_lab.control import control, openapi

from conftest import LAB

PAGE = (LAB.parent / "docs" / "LAB-REFERENCE.md").read_text(encoding="utf-8")
INDEX = (LAB / "billing_lab" / "page" / "index.html").read_text(encoding="utf-8")


def column(number):
    rows = [line.strip("|").split("|") for line in PAGE.split("\n") if line.startswith("| ")][1:]
    return [cell for row in rows for cell in re.findall("`([^`]+)`", row[number])]


def routes():
    made = control.application(None, "token")
    return {
        (route.method, route.resource.canonical)
        for route in made.router.routes()
        if route.resource.canonical.startswith("/api/") and route.method != "HEAD"
    }


def test_the_table_has_every_command():
    commands = cli.parser()._subparsers._group_actions[0].choices
    assert set(column(1)) == set(commands)


def test_the_table_has_every_method_of_python():
    methods = {name for name, value in vars(client.Lab).items() if callable(value) and not name.startswith("_")}
    assert set(column(2)) - {"running"} == methods - {"ask", "ask_text", "close"}
    assert callable(client.running)


def test_the_table_has_every_route_and_openapi_too():
    assert {tuple(cell.split(" ")) for cell in column(3)} == routes()
    assert {(method.upper(), path) for path, methods in openapi.describe()["paths"].items() for method in methods} == routes()


def test_the_page_has_the_sections_that_the_table_names():
    named = {row.strip("|").split("|")[4].strip() for row in PAGE.split("\n") if row.startswith("| ")} - {"page", "", "banner"}
    assert all(f">{name}</h2>" in INDEX for name in named), named


def test_a_lab_that_is_up_describes_itself(lab):
    told = lab.ask("GET", "/api/openapi.json")
    fault = told["paths"]["/api/faults"]["post"]["requestBody"]["content"]["application/json"]["schema"]
    assert (told["openapi"], fault["required"], "invoice" in fault["properties"]) == ("3.1.0", ["kind"], True)
    # The lab accepts each property that the description names.
    lab.fault("delay", **{name: 1 for name in ("ms", "spread", "skip", "count", "seconds", "chance", "seed")})
