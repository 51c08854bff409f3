"""The command: its output, its exit status, and its messages about wrong arguments."""
import json
import sqlite3
import subprocess

import pytest
from billing_lab.command import cli as words
from billing_lab.folder import Folder, default_path

from conftest import LAB


@pytest.fixture
def run(lab, cli):
    """A function that runs the command on the running lab."""

    def command(*arguments, **more):
        return cli(*arguments, folder=lab.folder.path, **more)

    return command


def printed(answer, code=0):
    assert (answer.returncode, answer.stderr) == (code, "")
    return answer.stdout


def every_command():
    """All commands, including those of `fault`."""
    found = [()]
    for name, parser in words.parser()._subparsers._group_actions[0].choices.items():
        found.append((name,))
        if parser._subparsers:
            found += [(name, kind) for kind in parser._subparsers._group_actions[0].choices]
    return found


@pytest.mark.parametrize("command", every_command(), ids=" ".join)
def test_every_command_has_help_with_ranges_and_defaults(cli, command):
    text = printed(cli(*command, "--help"))
    assert text.startswith("usage: billing-lab")
    for option in ("--count N", "--seconds S", "--ms N", "--lines N"):
        if option in text.split("options:")[-1]:
            described = " ".join(text.split(option)[-1].split("  --")[0].split())
            assert "(default: " in described and " to " in described or "or more" in described, described


@pytest.mark.parametrize(
    "arguments, said",
    [
        ([], "required: COMMAND"),
        (["dance"], "invalid choice: 'dance'"),
        (["fault", "status", "--code", "99"], "'99' is no number from 200 to 599"),
        (["fault", "delay", "--seconds", "nan"], "'nan' is no number from 0.001 to 86400"),
        (["fault", "reset", "--code", "500"], "unrecognized arguments: --code 500"),
        (["fault", "reset", "--endpoint", "shop"], "invalid choice: 'shop'"),
        (["fault", "goaway", "--after-work"], "unrecognized arguments: --after-work"),
        (["fault", "restart", "--ms", "60001"], "'60001' is no number from 0 to 60000"),
        (["call", "shop"], "invalid choice: 'shop'"),
        (["device", "colour"], "invalid choice: 'colour'"),
        (["logs", "--lines", "-1"], "'-1' is no number of 0 or more"),
        (["answer", "products", "f", "--status", "99"], "'99' is no number from 200 to 599"),
    ],
)
def test_wrong_words_are_a_usage_error(cli, arguments, said):
    answer = cli(*arguments)
    assert (answer.returncode, said in answer.stderr) == (2, True), answer.stderr


@pytest.mark.parametrize(
    "arguments",
    [
        ["status"],
        ["call", "check_server_availability"],
        ["journal"],
        ["buy", "p"],
        ["device"],
        ["fault", "list"],
        ["reset"],
        ["check"],
        ["doctor"],
        ["seed", "f"],
    ],
)
def test_without_a_lab_each_command_says_how_to_start_one(cli, tmp_path, arguments):
    answer = cli(*arguments)
    assert (answer.returncode, answer.stdout, answer.stderr) == (
        1,
        "",
        f"billing-lab: no lab is up in {tmp_path / 'lab'}; start it with `billing-lab --dir {tmp_path / 'lab'} up`\n",
    )


def test_down_without_a_lab_is_no_failure(cli, tmp_path):
    assert printed(cli("down")) == f"The lab in {tmp_path / 'lab'} was not up.\n"


def test_up_says_how_to_reach_the_lab_and_status_how_it_is(needs_view, cli, tmp_path):
    folder = tmp_path / "lab"
    try:
        text = printed(cli("up"))
        assert f"  export DBUS_SYSTEM_BUS_ADDRESS=unix:path={folder}/bus\n" in text
        status = printed(cli("status"))
        assert "\nconnection  none: connections work\nfaults      none\n" in status
        assert (
            "\ndevice      lab@example.org (lab-guid), country US, language en_US.utf8, production "
            "server, gateway up, token valid\n"
        ) in status
        info = json.loads(printed(cli("status", "--json")))
        assert info["catalogue"]["products"] == 4
    finally:
        assert printed(cli("down")) == f"The lab in {folder} was ended.\n"


def test_up_reads_a_catalogue(needs_view, cli, tmp_path):
    shop = tmp_path / "shop.json"
    shop.write_text("{\n}")
    try:
        answer = cli("up", "--seed", shop)
        assert answer.stderr == (f'billing-lab: {shop}:1: the catalogue lacks "lab", "countries", "apps", "users"; add them\n')
        assert answer.returncode == 1
    finally:
        cli("down")


def test_a_lab_that_stays_ends_at_ctrl_c(needs_view, cli, tmp_path):
    command = [LAB / "billing-lab", "--dir", tmp_path / "lab", "up", "--stay"]
    with subprocess.Popen(command, env=cli.environment, stdout=subprocess.PIPE, text=True) as lab:
        while lab.stdout.readline() != "It stays until Ctrl-C.\n":
            assert lab.poll() is None
        assert Folder(tmp_path / "lab").is_up()
        lab.terminate()
        assert lab.wait(30) == 0
    assert not Folder(tmp_path / "lab").is_up()


def test_a_command_that_is_interrupted_early_prints_no_traceback(cli, tmp_path):
    """The module takes the place of one that the command imports, and stands for the moment of the Ctrl-C. A shell in the
    background ignores SIGINT, so the module asks for it.
    """
    (tmp_path / "sqlite3.py").write_text(
        "import signal, time\nsignal.signal(signal.SIGINT, signal.default_int_handler)\nsignal.raise_signal(signal.SIGINT)\n"
        "time.sleep(20)\n"
    )
    answer = cli("up", PYTHONPATH=str(tmp_path))
    assert (answer.returncode, answer.stdout, answer.stderr) == (130, "", "")


def test_a_lab_that_stays_says_so_when_it_is_ended(needs_view, cli, tmp_path):
    command = [LAB / "billing-lab", "--dir", tmp_path / "lab", "up", "--stay", "--json"]
    with subprocess.Popen(command, env=cli.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as lab:
        while lab.stdout.readline() != "It stays until Ctrl-C.\n":
            assert lab.poll() is None
        cli("down")
        assert lab.wait(30) == 1
        assert lab.stderr.read().startswith("billing-lab: no lab is up in")


def test_the_default_folder_is_in_the_state_of_the_user(monkeypatch, tmp_path):
    monkeypatch.setenv("XDG_STATE_HOME", str(tmp_path))
    assert default_path() == tmp_path / "billing-lab" / "default"
    monkeypatch.setenv("XDG_STATE_HOME", "relative")
    monkeypatch.setenv("HOME", "/home/me")
    assert str(default_path()) == "/home/me/.local/state/billing-lab/default"
    monkeypatch.setenv("BILLING_LAB_DIR", "/labs/one")
    assert str(Folder.at(None).path) == "/labs/one"
    assert str(Folder.at("/labs/two").path) == "/labs/two"


def test_a_call_prints_its_answer_and_ends_as_it_was_answered(run, lab):
    lab.answer("country", b"yes")
    assert printed(run("call", "check_server_availability")) == "resp_result 0\nresp_info   yes\n"
    assert json.loads(printed(run("call", "check_server_availability", "--json"))) == {"resp_result": 0, "resp_info": "yes"}
    lab.fault("reset")
    failed = run("call", "check_server_availability")
    assert (failed.returncode, failed.stdout) == (3, "resp_result -1\nresp_info   \n")
    name = f"billing-lab --dir {lab.folder.path}"
    assert failed.stderr == f"billing-lab: why: `{name} doctor`, `{name} logs --lines 20`\n"
    lab.device("gateway", "down")
    refused = run("call", "check_server_availability")
    assert (refused.returncode, refused.stdout) == (4, "resp_result 1160003\nresp_info   Network error, please check!\n")
    lab.device("gateway", "up")
    lab.clear_faults()
    lab.fault("hang")
    late = run("call", "check_server_availability", "--timeout", "1")
    assert (late.returncode, "no answer: " in late.stderr) == (5, True)


@pytest.mark.parametrize(
    "values, said",
    [
        (["appid"], "'appid' is no argument; write NAME=VALUE"),
        (["app=1"], "get_product_list has no argument 'app'; it has appid, serverType, CheckValue"),
    ],
)
def test_a_call_with_a_wrong_argument_says_which(run, values, said):
    answer = run("call", "get_product_list", *values)
    assert (answer.returncode, answer.stderr) == (1, f"billing-lab: {said}\n")


def test_purchases_are_bought_listed_cancelled_and_refunded(run):
    line = "{}  {}  coins-100 of app-1  lab@example.org  US\n"
    assert printed(run("buy", "coins-100")) == line.format("INV-000003", "bought")
    assert printed(run("cancel", "INV-000003")) == line.format("INV-000003", "cancelled")
    assert json.loads(printed(run("buy", "coins-100", "--custom-id", "me", "--json")))["custom_id"] == "me"
    assert printed(run("refund", "INV-000004")) == line.format("INV-000004", "refunded")
    assert printed(run("invoices")).startswith(line.format("INV-000004", "refunded"))
    assert printed(run("invoices", "--user", "second@example.org")) == "no invoices\n"
    owned = run("buy", "what")
    assert (owned.returncode, owned.stderr) == (
        1,
        "billing-lab: app-1 does not sell 'what' in US; it sells coins-100, no-ads, season\n",
    )


def test_the_device_is_shown_and_switched(run):
    assert printed(run("device", "country", "DE")) == (
        "lab@example.org (lab-guid), country DE, language en_US.utf8, production server, gateway up, token valid\n"
    )
    assert printed(run("device", "signed-out")).startswith("no user is signed in, country DE")
    assert json.loads(printed(run("device", "--json")))["signed_in"] is None


def test_faults_are_added_listed_and_ended(run):
    line = "1  status  code 503, endpoint confirm, left 2, seed 7, in place of the work\n"
    assert printed(run("fault", "status", "--code", "503", "--endpoint", "confirm", "--count", "2", "--seed", "7")) == line
    assert printed(run("fault", "truncate", "--app", "a", "--chance", "0.5", "--no-work")) == (
        "2  truncate  app a, seed 1, chance 0.5, in place of the work\n"
    )
    assert printed(run("fault", "expired")) == "expired: the server's certificate has expired\n"
    assert printed(run("fault", "list")).startswith(f"connection: expired\n{line}")
    assert printed(run("fault", "clear", "1")) == "1 ended\n"
    assert printed(run("fault", "clear")) == "1 ended; connections work\n"
    told = json.loads(printed(run("fault", "list", "--json")))
    assert (told["faults"], told["connection"], told["connection_options"]) == ([], "none", {})
    wrong = run("fault", "clear", "1")
    assert (wrong.returncode, wrong.stderr) == (1, "billing-lab: there is no fault number 1\n")


def test_faults_of_the_connection_are_set_with_their_numbers_and_shown(run, lab):
    assert printed(run("fault", "idle-close", "--ms", "60000")) == (
        "idle-close: a connection is closed after this time without a request, not after five seconds\n"
    )
    lab.call("check_server_availability")
    assert printed(run("fault", "silent")).startswith("silent: the connections that are open go silent")
    silent = lab.status()["connections"]["silent"]
    assert silent > 0
    assert printed(run("fault", "list")) == f"connection: idle-close, ms 60000, {silent} silent\n"
    assert printed(run("fault", "restart", "--ms", "30000")).startswith("restart: the store ends")
    assert "ms 60000, the store is down until its restart ends\n" in printed(run("status"))
    assert printed(run("fault", "none")) == "none: connections work\n"
    assert printed(run("fault", "list")) == "connection: none\n"


def test_what_is_not_as_usual_is_ended(run, lab, tmp_path):
    body = tmp_path / "body"
    body.write_bytes(b"{}")
    name = lab.buy("coins-100")["id"]
    for command in (("fault", "reset"), ("device", "signed-out"), ("answer", "apply", body), ("fault", "expired")):
        printed(run(*command))
    assert printed(run("usual")) == (
        "ended: device: signed in none, usually lab@example.org\nended: own answer at apply\n"
        "ended: fault reset at every endpoint\nended: connections: the server's certificate has expired\n"
    )
    assert printed(run("usual")) == "Everything was as usual.\n"
    assert lab.invoices()[0]["id"] == name and lab.call("check_server_availability")[0] == 0


def test_a_fault_says_what_it_struck(run, lab):
    assert printed(
        run("fault", "status", "--endpoint", "confirm_purchase", "--invoice", "INV-SEED-2", "--skip", "1", "--count", "1")
    ) == ("1  status  code 500, endpoint confirm, invoice INV-SEED-2, skip 1, left 1, seed 1, in place of the work\n")
    for _ in range(3):
        lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    second = lab.journal()[1]["seq"]
    assert f"struck 1: journal {second}, over\n" in printed(run("fault", "list"))
    assert lab.faults()[0]["struck"] == [second]
    assert lab.journal()[1]["asked"] == {
        "app": "app-1",
        "user": "lab@example.org",
        "invoice": "INV-SEED-2",
        "product": "season",
    }


def test_a_fault_that_cannot_strike_is_refused(run):
    wrong = run("fault", "reset", "--endpoint", "invoices", "--app", "app-1")
    assert (wrong.returncode, "a request for invoices names no app" in wrong.stderr) == (1, True)
    wrong = run("fault", "refuse-stream", "--endpoint", "confirm")
    assert (wrong.returncode, wrong.stderr) == (
        1,
        "billing-lab: refuse-stream cannot strike at confirm: the service sends payments over HTTP/1.1 alone\n",
    )


def test_the_journal_is_shown_as_lines_and_as_json(run, lab):
    lab.call("check_server_availability")
    lab.call("get_product_list")
    assert [line.split()[3] for line in printed(run("journal")).splitlines()] == ["country", "products"]
    (entry,) = map(json.loads, printed(run("journal", "--json", "--last", "1")).splitlines())
    assert entry == lab.journal()[-1]


def test_the_journal_is_followed(lab, cli):
    lab.call("check_server_availability")
    command = [LAB / "billing-lab", "--dir", lab.folder.path, "journal", "--follow", "--json"]
    with subprocess.Popen(command, env=cli.environment, stdout=subprocess.PIPE, text=True) as reader:
        assert json.loads(reader.stdout.readline())["endpoint"] == "country"
        lab.call("get_product_list")
        assert json.loads(reader.stdout.readline())["endpoint"] == "products"
        reader.terminate()


def test_check_says_which_request_is_not_exact(run, lab):
    empty = run("check")
    assert (empty.returncode, empty.stderr) == (1, "billing-lab: the journal holds no request; call a method first\n")
    lab.call("check_server_availability")
    number = lab.journal()[0]["seq"]
    assert printed(run("check")) == f"{number:>5}  country  exact\n1 exact, 0 not\n"
    # Makes the entry look like the request of another program.
    with sqlite3.connect(lab.folder.state) as db:
        db.execute("UPDATE journal SET entry = json_set(entry, '$.differences[0]', 'no header')")
    assert printed(run("check"), 1) == (f"{number:>5}  country  NOT EXACT\n         no header\n0 exact, 1 not\n")
    lab.call("check_server_availability")
    assert printed(run("check", "--last", "1")).endswith("1 exact, 0 not\n")


def test_logs_are_shown_in_clear(run, lab):
    lab.call("check_server_availability")
    text = printed(run("logs", "daemon", "--lines", "1000"))
    assert "CheckServerAvailability Url[https://production.localhost" in text
    assert "<private:" not in text
    assert len(printed(run("logs", "--lines", "2")).splitlines()) == 2


def test_an_answer_of_one_s_own_is_set_and_taken_back(run, lab, tmp_path):
    (tmp_path / "body").write_bytes(b"mine")
    assert printed(run("answer", "country", tmp_path / "body")) == (f"country: 4 bytes of {tmp_path / 'body'}\n")
    assert lab.call("check_server_availability") == (0, "mine")
    assert printed(run("answer", "country", "--built-in")) == "country: built-in\n"
    assert "available" in lab.call("check_server_availability")[1]
    assert run("answer", "country").stderr == ("billing-lab: name a file with the body, or --built-in\n")
    assert "No such file" in run("answer", "country", "/none").stderr


def test_seed_and_reset_say_what_they_did(run, lab):
    shop = LAB / "billing_lab" / "catalogue.json"
    assert printed(run("seed", shop)) == "2 apps, 4 products, 4 countries, 2 users, 2 invoices\n"
    lab.buy("coins-100")
    assert printed(run("reset")).startswith("No purchase, fault or journal entry")
    assert len(lab.invoices()) == 2


def test_a_reader_that_has_enough_is_no_failure(lab, cli):
    for _ in range(30):
        lab.call("check_server_availability")
    command = f"{LAB / 'billing-lab'} --dir {lab.folder.path} journal --json | head -n 1"
    answer = subprocess.run(
        ["bash", "-o", "pipefail", "-c", command], env=cli.environment, capture_output=True, text=True, check=False
    )
    assert (answer.returncode, answer.stderr) == (0, "")


@pytest.fixture
def build(tmp_path):
    """A build with a billingctl that prints where it runs."""
    made = tmp_path / "build"
    for name, text in (
        ("service/billing-service", "exit 0"),
        (
            "client/billingctl",
            'echo "$@"; head -n 1 /opt/down/cert/ca.pem; '
            "ls /usr/apps/org.plevo.billing-api/res/certificate; "
            'echo "$DBUS_SYSTEM_BUS_ADDRESS $PLEVO_DEVICE_CONF"; exit 6',
        ),
    ):
        (made / name).parent.mkdir(parents=True)
        (made / name).write_text(f"#!/bin/sh\n{text}\n")
        (made / name).chmod(0o755)
    return made


def test_doctor_runs_where_the_daemon_runs(run, lab, build):
    answer = run("doctor", "--json", BILLING_SERVICE=str(build / "service" / "billing-service"))
    assert answer.stdout.splitlines() == [
        "doctor --json",
        "-----BEGIN CERTIFICATE-----",
        "bgclient.crt",
        f"{lab.bus} {lab.folder.settings}",
    ]
    assert answer.returncode == 6


def test_the_doctor_finds_nothing_wrong_with_a_lab(run):
    report = json.loads(printed(run("doctor", "--sign", "--json")))
    assert report["failed"] == 0
    assert {"token", "key", "TLS", "call"} <= {check["check"] for check in report["checks"] if check["outcome"] == "ok"}


def test_the_doctor_names_what_is_wrong_with_a_lab(run, lab):
    lab.connection("expired")
    answer = run("doctor", "--json")
    failed = {check["check"]: check for check in json.loads(answer.stdout)["checks"] if check["outcome"] == "failed"}
    assert answer.returncode != 0
    assert "expired" in failed["TLS"]["finding"]


def test_doctor_says_when_billingctl_is_not_built(run, build):
    (build / "client" / "billingctl").unlink()
    answer = run("doctor", BILLING_SERVICE=str(build / "service" / "billing-service"), PATH="/usr/bin:/bin")
    assert (answer.returncode, answer.stderr) == (
        1,
        "billing-lab: billingctl is not built; build it with `ninja -C build client/billingctl`\n",
    )
