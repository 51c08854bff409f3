"""Output of the Linux backend's log: levels, private values, terminal, journal, and a log that cannot be written."""
import json
import os
import pty
import re
import socket
import subprocess
import sys

import pytest

PROBE = os.environ["PLATFORM_PROBE"]
LEVELS = ["debug", "info", "warning", "error"]
LETTERS = "DIWE"
JOURNAL = os.path.join(os.path.dirname(__file__), "journal_receiver.py")
PREFIX = "BILLING_SERVICE: Probe.cpp: logLevels(42) > "


def environment(**variables):
    base = {k: v for k, v in os.environ.items() if not k.startswith("PLEVO_") and k != "JOURNAL_STREAM"}
    return {**base, **variables}


def run(*arguments, stderr=subprocess.PIPE, **variables):
    done = subprocess.run(
        [PROBE, *arguments], env=environment(**variables), stdout=subprocess.PIPE, stderr=stderr, timeout=60, check=True
    )
    return int(done.stdout.split()[-1]), (done.stderr or b"").decode()


def level_lines(letter):
    return [
        f"{letter}/{PREFIX}CountryCode:[public]",
        f"{letter}/{PREFIX}RequestGetProducts start Header: <private:14 bytes>",
        f"{letter}/{PREFIX}RequestGetProducts start Url[https://host/path?<private:11 bytes>]",
        f"{letter}/{PREFIX}nobody classified this <private:6 bytes>",
    ]


@pytest.mark.parametrize("level", LEVELS)
def test_a_level_lets_its_own_and_higher_ones_through_and_no_private_value(level):
    written, text = run("levels", PLEVO_LOG_LEVEL=level)
    letters = LETTERS[LEVELS.index(level) :]
    assert text.splitlines() == [line for letter in letters for line in level_lines(letter)]
    assert "CANARY" not in text
    assert written == len(f"E/{PREFIX}CountryCode:[public]\n")


def test_info_is_the_level_when_none_or_nothing_is_given():
    for variables in ({}, {"PLEVO_LOG_LEVEL": ""}):
        _, text = run("levels", **variables)
        assert {line[0] for line in text.splitlines()} == set("IWE")


def test_an_invalid_level_is_reported_once_and_the_default_is_used():
    _, text = run("levels", PLEVO_LOG_LEVEL="loud\x1b[31m")
    first, *rest = text.splitlines()
    assert first == (
        "E/BILLING_PLATFORM: log: PLEVO_LOG_LEVEL=loud\\x1b[31m is none of debug, "
        "info, call, warning and error; the default is used"
    )
    assert {line[0] for line in rest} == set("IWE")


@pytest.mark.parametrize("level", LEVELS)
def test_private_values_are_shown_on_demand(level):
    _, text = run("levels", PLEVO_LOG_LEVEL=level, PLEVO_LOG_PRIVATE="show")
    assert text.count("CANARY") == 3 * (4 - LEVELS.index(level))
    assert "<private:" not in text


def test_private_values_stay_hidden_for_any_other_word():
    _, text = run("levels", PLEVO_LOG_PRIVATE="yes")
    assert "CANARY" not in text
    assert text.startswith("E/BILLING_PLATFORM: log: PLEVO_LOG_PRIVATE=yes is not show; ")


def test_each_record_is_one_write():
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    with ours, theirs:
        run("twice", "x" * 9000, stderr=theirs.fileno())
        for _ in range(2):
            record = ours.recv(1 << 20)
            assert record.startswith(b"E/BILLING_SERVICE: Probe.cpp: logTwice(42) > CountryCode:[x")
            assert record.endswith(b" bytes cut>\n")
            assert len(record) <= 4096
        ours.setblocking(False)
        with pytest.raises(BlockingIOError):
            ours.recv(1)


def test_colours_are_for_terminals():
    _, text = run("twice", "a")
    assert "\x1b" not in text
    ours, theirs = pty.openpty()
    try:
        run("twice", "a", stderr=theirs)
        shown = os.read(ours, 4096).decode()
    finally:
        os.close(ours)
        os.close(theirs)
    assert "> \x1b[0;31mCountryCode:[a]\x1b[0;m\r\n" in shown


def test_a_hostile_argument_stays_on_its_line():
    _, text = run("twice", "a\r\nE/BILLING_SERVICE: forged\x1b]0;x\x07\n")
    assert len(text.splitlines()) == 2
    assert "CountryCode:[a\\r\\nE/BILLING_SERVICE: forged\\x1b]0;x\\x07\\n]" in text


def test_a_closed_standard_error_loses_the_record_and_nothing_else():
    done = subprocess.run(
        ["sh", "-c", '"$0" twice a 2>&-', PROBE], env=environment(), stdout=subprocess.PIPE, timeout=60, check=True
    )
    assert done.stdout == b"-1\n"


def test_a_full_pipe_that_does_not_block_loses_whole_records():
    ours, theirs = os.pipe()
    os.set_blocking(theirs, False)
    try:
        while True:
            os.write(theirs, b"x" * 4096)
    except BlockingIOError:
        pass
    written, _ = run("twice", "a" * 2000, stderr=theirs)
    assert written == -1
    os.close(ours)
    os.close(theirs)


def test_a_journal_stream_of_another_file_is_not_believed():
    _, text = run("twice", "a", JOURNAL_STREAM="1:2")
    assert text.count("CountryCode:[a]") == 2


def journal_entries(*arguments, **variables):
    """The records at a journal's socket, in a mount namespace."""
    namespace = ["unshare", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    if subprocess.run(namespace + ["true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("no mount namespace can be had here (needs root or user namespaces)")
    done = subprocess.run(
        namespace + [sys.executable, JOURNAL, PROBE, *arguments],
        env=environment(**variables),
        stdout=subprocess.PIPE,
        timeout=60,
        check=True,
    )
    return json.loads(done.stdout)


def test_the_journal_gets_fields():
    entries = journal_entries("levels", PLEVO_LOG_LEVEL="debug")
    assert len(entries) == 16
    assert [entry["PRIORITY"] for entry in entries[::4]] == ["7", "6", "4", "3"]
    assert entries[0] == {
        "MESSAGE": "Probe.cpp: logLevels(42) > CountryCode:[public]",
        "PRIORITY": "7",
        "SYSLOG_IDENTIFIER": "BILLING_SERVICE",
        "CODE_FILE": "Probe.cpp",
        "CODE_FUNC": "logLevels",
        "CODE_LINE": "42",
    }
    assert "CANARY" not in json.dumps(entries)


def test_the_journal_gets_the_values_to_search_for_as_fields():
    method, transfer = journal_entries("fields")
    assert method["BILLING_METHOD"] == "get_product_list"
    assert method["BILLING_SENDER"] == ":1.42"
    assert {name: value for name, value in transfer.items() if name.startswith("BILLING_")} == {
        "BILLING_REQUEST": "7",
        "BILLING_URL": "https://store/products?<private:11 bytes>",
        "BILLING_CURL_CODE": "0",
        "BILLING_HTTP_STATUS": "503",
        "BILLING_NEW_CONNECTIONS": "1",
        "BILLING_NAME_US": "1",
        "BILLING_CONNECT_US": "2",
        "BILLING_TLS_US": "3",
        "BILLING_FIRST_BYTE_US": "4",
        "BILLING_WHOLE_US": "5",
        "BILLING_BYTES": "6",
    }
    assert "CANARY" not in json.dumps([method, transfer])


def test_the_journal_gets_neither_colours_nor_line_breaks_nor_endless_records():
    entries = journal_entries("twice", "a\n" * 9000)
    assert len(entries) == 2
    for entry in entries:
        assert re.fullmatch(r"Probe.cpp: logTwice\(42\) > CountryCode:\[(a\\n)+a? <\d+ bytes cut>", entry["MESSAGE"])
        assert len(entry["MESSAGE"]) <= 4096


def test_the_journal_gets_the_complaint_about_the_level():
    entries = journal_entries("levels", PLEVO_LOG_LEVEL="loud")
    assert entries[0]["SYSLOG_IDENTIFIER"] == "BILLING_PLATFORM"
    assert entries[0]["PRIORITY"] == "3"
    assert entries[0]["MESSAGE"].startswith("log: PLEVO_LOG_LEVEL=loud is none of ")
