"""The Yocto recipe of the tree. Only its forms and facts are checked, because bitbake does not run here."""
import fnmatch
import hashlib
import json
import re
import subprocess

import pytest

from installation import CALLERS, SERVICE_USER, TREE

RECIPES = TREE / "packaging/yocto/recipes-billing/billing-service"
# Variables of bitbake, with their values for the prefix /usr.
KNOWN = {
    "PN": "billing-service",
    "D": "",
    "prefix": "/usr",
    "bindir": "/usr/bin",
    "sbindir": "/usr/sbin",
    "libexecdir": "/usr/libexec",
    "libdir": "/usr/lib",
    "nonarch_libdir": "/usr/lib",
    "includedir": "/usr/include",
    "datadir": "/usr/share",
    "docdir": "/usr/share/doc",
    "mandir": "/usr/share/man",
    "systemd_system_unitdir": "/usr/lib/systemd/system",
    "BILLING_PLATFORM": "linux",
}


def expand(text):
    return re.sub(r"\$\{(\w+)\}", lambda match: KNOWN[match[1]], text)


@pytest.fixture(scope="module")
def recipe():
    """The variables of the recipe, with the values that are appended to them."""
    text = next(RECIPES.glob("*.bb")).read_text(encoding="utf-8").replace("\\\n", " ")
    found = {}
    for name, value in re.findall(r'^(\S+) (?:\?=|\+=|=\+|=) "([^"]*)"$', text, re.MULTILINE):
        found[expand(name)] = expand(f"{found.get(expand(name), '')} {value}").strip()
    found["removed"] = expand(re.search(r"^\s*rm -rf (.*)$", text, re.MULTILINE)[1]).split()
    return found


@pytest.fixture(scope="module")
def files(tmp_path_factory, recipe):
    """The installed files with the recipe's options, without those that the recipe removes."""
    folder = tmp_path_factory.mktemp("yocto")
    subprocess.run(
        ["meson", "setup", folder / "build", TREE, "--prefix=/usr", "--libdir=lib", *recipe["EXTRA_OEMESON"].split()],
        check=True,
        capture_output=True,
    )
    told = subprocess.run(
        ["meson", "introspect", "--installed", folder / "build"], check=True, capture_output=True, text=True
    ).stdout
    return [
        path
        for path in json.loads(told).values()
        if not any(path == gone or path.startswith(gone + "/") for gone in recipe["removed"])
    ]


def matches(path, patterns):
    return any(fnmatch.fnmatch(path, pattern) or path.startswith(pattern + "/") for pattern in patterns.split())


def test_its_version_is_the_projects():
    version = re.search(r"version: '([\d.]+)'", (TREE / "meson.build").read_text(encoding="utf-8"))[1]
    assert [path.name for path in RECIPES.glob("*.bb")] == [f"billing-service_{version}.bb"]


def test_its_licence_is_the_one_in_the_tree(recipe):
    assert recipe["LICENSE"] == "Apache-2.0"
    digest = hashlib.md5((TREE / "LICENSE").read_bytes()).hexdigest()
    assert recipe["LIC_FILES_CHKSUM"] == f"file://LICENSE;md5={digest}"


def test_every_installed_file_belongs_to_exactly_one_package(recipe, files):
    packages = {name: value for name, value in recipe.items() if name.startswith("FILES:")}
    assert set(packages) == {
        "FILES:billing-service",
        "FILES:billing-service-dev",
        "FILES:billing-service-doc",
        "FILES:billingctl",
    }
    owners = {path: [name for name, value in packages.items() if matches(path, value)] for path in files}
    assert {path: of for path, of in owners.items() if len(of) != 1} == {}
    assert set(packages) == {name for names in owners.values() for name in names}


def test_every_pattern_stands_for_a_file(recipe, files):
    patterns = [pattern for name, value in recipe.items() if name.startswith("FILES:") for pattern in value.split()]
    assert [pattern for pattern in patterns if not any(matches(path, pattern) for path in files)] == []
    assert recipe["SYSTEMD_SERVICE:billing-service"] in [path.rsplit("/", 1)[1] for path in files]


def test_users_are_those_of_the_unit_and_of_the_bus_policy(recipe):
    assert recipe["USERADD_PARAM:billing-service"].split()[-1] == SERVICE_USER
    assert recipe["GROUPADD_PARAM:billing-service"].split()[-1] == CALLERS
    assert re.search(
        rf'^u @user@ - "Billing service" {re.escape("/var/lib/billing-service")}$',
        (TREE / "data/systemd/sysusers.conf.in").read_text(encoding="utf-8"),
        re.MULTILINE,
    )
    assert "--home-dir /var/lib/billing-service " in recipe["USERADD_PARAM:billing-service"]


# The forms of lines in bitbake's syntax that a recipe like this one needs.
LINE = re.compile(
    r"""\#.*|inherit(\ [a-z]+[a-z_0-9]*)+|[A-Z_]+(:\$\{PN\}|:[a-z]+)?(-[a-z]+)?\ (\?=|\+=|=\+|=)\ "[^"]*"|""", re.VERBOSE
)
FUNCTION = re.compile(r"^[a-z_]+(:append)?\(\) \{\n(.*?)^\}\n", re.MULTILINE | re.DOTALL)


def test_its_syntax_is_bitbakes():
    """The checks that are possible without bitbake: the form of each line, shell and Python, and that each variable is
    known.
    """
    text = next(RECIPES.glob("*.bb")).read_text(encoding="utf-8")
    for _, body in FUNCTION.findall(text):
        subprocess.run(["sh", "-n"], input=re.sub(r"\$\{\w+\}", "x", body), check=True, text=True)
    for line in FUNCTION.sub("", text).replace("\\\n", " ").splitlines():
        assert LINE.fullmatch(line), line
    for expression in re.findall(r"\$\{@(.*?)\}\"", text):
        compile(expression, "recipe", "eval")
    assert set(re.findall(r"\$\{(\w+)\}", text)) <= set(KNOWN)


# pkg-config's names of what a recipe provides.
PROVIDED = {
    "glib-2.0": "glib-2.0",
    "gio-2.0": "glib-2.0",
    "ecore": "efl",
    "libcurl": "curl",
    "libcrypto": "openssl",
    "libssl": "openssl",
    "jsoncpp": "jsoncpp",
    "p11-kit-1": "p11-kit",
    "CLI11": "cli11",
}


def test_it_depends_on_what_the_build_asks_for(recipe):
    build = [TREE / "meson.build"] + [
        path for room in ("client", "platform", "service") for path in (TREE / room).rglob("meson.build")
    ]
    asked = {
        name
        for path in build
        for name in re.findall(r"[^_]dependency\('([^']+)'", path.read_text(encoding="utf-8"))
        if name != "threads"
    }
    assert {PROVIDED[name] for name in asked} | {"python3-native"} == set(recipe["DEPENDS"].split())


def test_each_file_is_in_the_package_that_debian_has_it_in(recipe, files):
    debian = {}
    for listed in (TREE / "debian").glob("*.install"):
        text = (
            listed.read_text(encoding="utf-8").replace("usr/lib/*/", "usr/lib/").replace("vendor-completions", "site-functions")
        )
        debian[listed.stem] = " ".join(
            "/" + re.sub("^lib/", "usr/lib/", line)
            for line in text.splitlines()
            if line and "/doc/" not in line and "/man/" not in line
        )
    ours = {name.removeprefix("FILES:"): value for name, value in recipe.items() if name.startswith("FILES:")}
    documents = ours.pop("billing-service-doc")
    for path in files:
        if not matches(path, documents):
            owners = [[name for name, patterns in packages.items() if matches(path, patterns)] for packages in (ours, debian)]
            assert owners[0] == owners[1] and len(owners[0]) == 1, path
