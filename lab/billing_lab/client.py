"""The Python interface of a lab: starts and stops one, and controls one that is up. It imports the standard library only;
calls use PyGObject where it is installed."""
import contextlib
import http.client
import importlib.util
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import urllib.parse
from collections.abc import Iterator

from .device import view
from .device.methods import arguments_of
from .folder import Folder, LabError, absolute, last_line

START_SECONDS = 90
STOP_SECONDS = 30
# Modules that the lab's own process imports. An app's virtual environment usually lacks them.
_NEEDED = ("aiohttp", "cryptography", "gi", "h2", "jinja2", "jsonschema", "trustme")
_SYSTEM_PYTHON = "/usr/bin/python3"


class Lab:
    """A lab that is up, as test programs and the command line use it."""

    def __init__(self, path: pathlib.Path | str | None = None):
        self.folder = Folder.at(path)
        self.info = self.folder.read_info()
        self._address = urllib.parse.urlsplit(self.info["control"]["address"]).netloc
        self._caller = None

    @property
    def bus(self) -> str:
        """The address of the lab's bus, for DBUS_SYSTEM_BUS_ADDRESS."""
        return self.info["bus"]

    # Calls of the five methods, as an app makes them

    def call(self, method: str, timeout: float = 100, **values: str) -> tuple[int, str]:
        """@param values the method's arguments by name; an argument that is left out has its default
        @return (resp_result, resp_info)"""
        if importlib.util.find_spec("gi") is None:
            return self._call_by_lab(method, timeout, values)
        return self.finish_call(self.start_call(method, timeout, **values))

    def _call_by_lab(self, method: str, timeout: float, values: dict[str, str]) -> tuple[int, str]:
        """Lets the lab's process make the call: PyGObject is missing here, as in most virtual environments."""
        told = self.ask("POST", "/api/call", {"method": method, "arguments": values, "seconds": timeout}, timeout + 10)
        if "error" in told:
            raise LabError(f"no answer: {told['error']['cause']}")
        return told["resp_result"], told["resp_info"]

    def start_call(self, method: str, timeout: float = 100, **values: str):
        """Starts a call and does not wait for its answer. @return the call, for finish_call()"""
        arguments = arguments_of(method, values)
        if self._caller is None:
            from .device.bus import Caller

            self._caller = Caller(self.bus)
        return self._caller.start(method, *arguments, timeout=timeout)

    def finish_call(self, call) -> tuple[int, str]:
        self._caller.finish([call])
        if call.error is not None:
            raise call.error
        return call.result

    def close(self) -> None:
        if self._caller is not None:
            self._caller.close()
            self._caller = None

    # Control

    def _connect(self, method: str, path: str, body: object, timeout: float | None):
        connection = http.client.HTTPConnection(self._address, timeout=timeout)
        try:
            connection.request(
                method,
                path,
                None if body is None else json.dumps(body),
                {"Authorization": f"Bearer {self.info['control']['token']}", "Content-Type": "application/json"},
            )
            return connection, connection.getresponse()
        except OSError as error:
            connection.close()
            told = f"the lab in {self.folder.path} does not answer ({error})"
            raise LabError(f"{told}; see {self.folder.command('status')}") from None

    def ask(self, method: str, path: str, body: object = None, timeout: float = 60):
        """One request to the control interface."""
        return json.loads(self.ask_text(method, path, body, timeout))

    def ask_text(self, method: str, path: str, body: object = None, timeout: float = 60) -> str:
        connection, response = self._connect(method, path, body, timeout)
        with contextlib.closing(connection):
            text = response.read().decode()
        if response.status == 200:
            return text
        try:
            raise LabError(json.loads(text)["error"])
        except ValueError:
            raise LabError(f"the lab failed ({response.status}): {text}") from None

    def status(self) -> dict:
        return self.ask("GET", "/api/status")

    def seed(self, file: pathlib.Path | str) -> dict:
        return self.ask("POST", "/api/seed", {"file": str(absolute(file))})

    def reset(self) -> dict:
        return self.ask("POST", "/api/reset", {})

    def usual(self) -> None:
        """Sets faults, own answers and switches of the device back to what the catalogue has. Purchases and journal stay."""
        self.ask("POST", "/api/usual", {})

    def answer(
        self,
        endpoint: str,
        *bodies: bytes | None,
        status: int | None = None,
        type: str | None = None,
        template: bool = False,
        **match: str,
    ) -> None:
        """Replaces the built-in answer of an endpoint.

        @param endpoint an endpoint's or a method's name
        @param bodies one for each request in turn, and the last for all further ones; None restores the built-in answer
        @param template True if the bodies are templates
        @param match app, user, invoice, product, custom_id, header"""
        texts = [body.decode("latin-1") for body in bodies if body is not None]
        self.ask(
            "POST",
            "/api/answers",
            {"endpoint": endpoint, "bodies": texts, "status": status, "type": type, "template": template, **match},
        )

    def buy(
        self,
        product: str,
        *,
        app: str | None = None,
        user: str | None = None,
        country: str | None = None,
        custom_id: str | None = None,
        **life: object,
    ) -> dict:
        """@param life pending=True; approve_after, decline_after, after, period, grace: spans such as "30d" or seconds
        @return the new invoice"""
        return self.ask(
            "POST",
            "/api/buy",
            {"product": product, "app": app, "user": user, "country": country, "custom_id": custom_id, **life},
        )

    def step(self, invoice: str, step: str, after: str | int | None = None) -> dict:
        """Takes a step of life/purchase.py's STEPS, now or after a span of the lab's clock. @return the invoice"""
        return self.ask("POST", "/api/step", {"invoice": invoice, "step": step, "after": after})

    def cancel(self, invoice: str, after: str | int | None = None) -> dict:
        return self.step(invoice, "cancel", after)

    def refund(self, invoice: str, after: str | int | None = None) -> dict:
        return self.step(invoice, "refund", after)

    def clock(self) -> dict:
        """@return now, the lab's time, and ahead_seconds, by how much it is ahead of the machine's"""
        return self.ask("GET", "/api/clock")

    def advance(self, span: str | int) -> dict:
        """Moves the lab's clock forward by a span such as "30d" or seconds, and takes the steps that are then due."""
        return self.ask("POST", "/api/clock", {"advance": span})

    def invoices(self, user: str | None = None) -> list[dict]:
        return self.ask("GET", _with_query("/api/invoices", user=user))

    def device(self, switch: str | None = None, value: str = "") -> dict:
        """Sets a switch of the device, if one is named. @return the device's settings"""
        if switch is None:
            return self.ask("GET", "/api/device")
        return self.ask("POST", "/api/device", {"switch": switch, "value": value})

    def names(self, *names: str, remove: bool = False) -> list[str]:
        """Adds names that programs may own on the lab's bus, for mocks of other services, or removes them.

        @param remove removes the names; without any name, all
        @return the names that may then be owned"""
        if remove:
            query = urllib.parse.urlencode([("name", name) for name in names])
            return self.ask("DELETE", f"/api/names?{query}")
        return self.ask("POST", "/api/names", {"names": names}) if names else self.ask("GET", "/api/names")

    def fault(self, kind: str, **options) -> dict:
        """Adds a fault.

        @param options options of the kind; conditions of the requests that it strikes (endpoint, or a method's name, app,
        user, invoice, product, custom_id, header); skip, count, seconds, chance, seed, done
        @return the fault"""
        return self.ask("POST", "/api/faults", {"kind": kind, **options})

    def faults(self) -> list[dict]:
        return self.ask("GET", "/api/faults")

    def clear_faults(self, number: int | None = None) -> int:
        return self.ask("DELETE", _with_query("/api/faults", number=number))["ended"]

    def connection(self, fault: str, **options: int) -> None:
        """Sets the fault of all connections and its options; "none" ends it."""
        self.ask("POST", "/api/connection", {"fault": fault, **options})

    # Checks of an app

    def scenario(self, wanted: dict | pathlib.Path | str) -> dict:
        """Resets the lab and begins a scenario.

        @param wanted the scenario's file, or its content
        @return invoices, by the names of the purchases; the numbers of faults and expectations"""
        from .checks import scenario

        told = wanted if isinstance(wanted, dict) else scenario.read(pathlib.Path(wanted))
        return self.ask("POST", "/api/scenario", told)

    def asked(self, endpoint: str | None = None, **wanted) -> dict:
        """Counts the requests that fit.

        @param endpoint an endpoint's or a method's name; None for all
        @param wanted app, user, invoice, product, custom_id, header; times, or at_least and at_most; after
        @return ok, found (numbers of the journal), near (requests that differ in one condition), message"""
        return self.ask("POST", "/api/asked", {"endpoint": endpoint, **wanted})

    def assert_asked(self, endpoint: str | None = None, **wanted) -> list[int]:
        """Raises AssertionError unless asked() is ok. @return the numbers of the entries found"""
        __tracebackhide__ = True
        told = self.asked(endpoint, **wanted)
        if not told["ok"]:
            raise AssertionError(told["message"])
        return told["found"]

    def expect(self, endpoint: str | None = None, **wanted) -> dict:
        """Adds an expectation that verify() judges. @param wanted as for asked(); name, its name in reports
        @return the expectation"""
        return self.ask("POST", "/api/expectations", {"endpoint": endpoint, **wanted})

    def verify(self, **wanted) -> dict:
        """Judges the requests since the last reset.

        @param wanted rules, more (names of rules), polls
        @return ok, requests and checks, as checks/report.py makes them"""
        return self.ask("POST", "/api/verify", wanted)

    def assert_verified(self, **wanted) -> None:
        """Raises AssertionError unless every check of verify() is good."""
        __tracebackhide__ = True
        told = self.verify(**wanted)
        if not told["ok"]:
            raise AssertionError(
                "\n".join(f"{check['name']}: {check['message']}" for check in told["checks"] if not check["ok"])
            )

    def report(self, form: str, **wanted) -> str:
        """The result of verify() as a text. @param form "junit" (XML) or "page" (HTML)"""
        return self.ask_text("POST", f"/api/verify?form={form}", wanted)

    def journal(self, after: int = 0, last: int | None = None) -> list[dict]:
        return self.ask("GET", _with_query("/api/journal", after=after, last=last))

    def calls(self, last: int | None = None) -> list[dict]:
        """The calls on the lab's bus since the last reset, each with its requests and the fault that struck it."""
        return self.ask("GET", _with_query("/api/calls", last=last))

    # Whole runs

    def export(self, file: pathlib.Path | str | None = None, last: int | None = None) -> dict:
        """The lab's whole state and journal, with tokens and ids of device and users hidden.

        @param file a file that the export is also written to
        @param last the most entries of the journal; None for all"""
        told = self.ask("GET", _with_query("/api/export", last=last))
        if file is not None:
            pathlib.Path(file).write_text(json.dumps(told, ensure_ascii=False, indent=1) + "\n", encoding="utf-8")
        return told

    def import_(self, wanted: dict | pathlib.Path | str) -> dict:
        """Replaces the lab's whole state by that of an export.

        @param wanted the export's file, or its content
        @return the number of members of each part, and left_out, what could not be set"""
        return self.ask("POST", "/api/import", _read_run(wanted))

    def diff(self, first: dict | pathlib.Path | str, second: dict | pathlib.Path | str | None = None) -> dict:
        """Compares two runs.

        @param first an export or {"journal": entries}, or the file of either
        @param second another; None for this lab
        @return same, settings, requests, as runs/compare.py makes them"""
        told = {"first": _read_run(first)} | ({} if second is None else {"second": _read_run(second)})
        return self.ask("POST", "/api/diff", told)

    def follow(self, after: int | None = None) -> Iterator[dict]:
        """Yields new entries of the journal as they are added, until the lab ends."""
        connection, response = self._connect("GET", _with_query("/api/events", after=after), None, None)
        with contextlib.closing(connection):
            event = b""
            for line in response:
                if line.startswith(b"event: "):
                    event = line.removeprefix(b"event: ").strip()
                if line.startswith(b"data: ") and event == b"journal":
                    yield json.loads(line.removeprefix(b"data: "))


def _read_run(wanted: dict | pathlib.Path | str) -> dict:
    if isinstance(wanted, dict):
        return wanted
    from .runs.export import read_file

    return read_file(pathlib.Path(wanted))


def _with_query(path: str, **values: object) -> str:
    given = {name: value for name, value in values.items() if value is not None}
    return f"{path}?{urllib.parse.urlencode(given)}" if given else path


def _interpreter() -> str:
    """The interpreter for the lab's process: this one, or the system's if this one lacks a module that the lab needs."""
    missing = [name for name in _NEEDED if importlib.util.find_spec(name) is None]
    return _SYSTEM_PYTHON if missing and os.access(_SYSTEM_PYTHON, os.X_OK) else sys.executable


def start(folder: Folder, level: str = "info", lifeline: int | None = None) -> Lab:
    """Starts a lab in a folder.

    @param level the daemon's log level
    @param lifeline the reading end of a pipe; the lab ends when the last writing end is closed. None: it stays
    """
    problem = view.why_no_view()
    if problem is not None:
        raise LabError(problem)
    if folder.is_up():
        raise LabError(
            f"a lab is up in {folder.path} (process {folder.read_info()['pid']}); end it with {folder.command('down')}, "
            "or name another folder; `run` without --dir makes its own"
        )
    folder.make()
    hear, tell = os.pipe()
    handed_on = [tell] if lifeline is None else [tell, lifeline]
    package = str(pathlib.Path(__file__).resolve().parents[1])
    paths = os.pathsep.join(filter(None, [package, os.environ.get("PYTHONPATH")]))
    with open(folder.logs / "lab.log", "wb") as log:
        process = subprocess.Popen(
            [_interpreter(), "-m", "billing_lab.supervisor", str(folder.path), level, *map(str, handed_on)],
            pass_fds=handed_on,
            stdin=subprocess.DEVNULL,
            stdout=log,
            stderr=log,
            env={**os.environ, "PYTHONPATH": paths},
            start_new_session=True,
        )
    os.close(tell)
    try:
        with os.fdopen(hear, encoding="utf-8") as report:
            said = report.readline().strip()
    except BaseException:
        process.kill()
        process.wait()
        raise
    if said != "up":
        process.wait(STOP_SECONDS)
        raise LabError(said or f"the lab did not start: {last_line(folder.logs / 'lab.log')}")
    # The lab outlives this process, so its exit status is not waited for: the lock of its folder tells whether it is up.
    return Lab(folder.path)


def stop(folder: Folder) -> bool:
    """Ends the lab of a folder and waits for its end. @return whether a lab was up"""
    if not folder.is_up():
        return False
    pid = folder.read_info()["pid"]
    for number, seconds in ((signal.SIGTERM, STOP_SECONDS), (signal.SIGKILL, 5)):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, number)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            with contextlib.suppress(ChildProcessError):
                os.waitpid(pid, os.WNOHANG)
            if not folder.is_up():
                return True
            time.sleep(0.02)
    raise LabError(f"the lab's process {pid} does not end; see {folder.logs / 'lab.log'}")


@contextlib.contextmanager
def running(path: pathlib.Path | str, level: str = "info") -> Iterator[Lab]:
    """Starts a lab for the time of the block. It ends with this process even if this process is killed."""
    folder = Folder.at(path)
    held, kept = os.pipe()
    try:
        lab = start(folder, level, held)
        os.close(held)
        held = -1
        try:
            yield lab
        finally:
            lab.close()
            stop(folder)
    finally:
        os.close(kept)
        if held >= 0:
            os.close(held)
