"""The functions behind the commands of billing-lab. Each returns the command's exit status."""
import argparse
import collections
import contextlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
from collections.abc import Iterator

from .. import client
from ..calls import book
from ..device import tools, view
from ..folder import Folder, LabError, named_errors
from ..shop import journal
from ..shop.faults import CONNECTION_FAULTS
from ..shop.matching import WORDS

# The exit statuses of `billingctl`.
EXIT_BY_RESULT = {0: 0, -1: 3, 1160003: 4}
EXIT_UNREACHABLE = 5


def _json(value: object) -> None:
    print(json.dumps(value, indent=2, ensure_ascii=False))


def _lab(options: argparse.Namespace) -> client.Lab:
    return client.Lab(options.dir)


# Life


def up(options: argparse.Namespace) -> int:
    folder = Folder.at(options.dir)
    if options.stay:
        return _stay(folder, options)
    if folder.is_up():
        _begin(client.Lab(folder.path), options)
        return 0
    with named_errors():
        lab = client.start(folder, options.log_level)
    try:
        _begin(lab, options)
    except LabError:
        client.stop(folder)
        raise
    return 0


def _begin(lab: client.Lab, options: argparse.Namespace) -> None:
    if options.seed:
        lab.seed(options.seed)
    if options.json:
        _json(lab.info)
    else:
        _show_addresses(lab)


def _stay(folder: Folder, options: argparse.Namespace) -> int:
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with contextlib.suppress(KeyboardInterrupt), client.running(folder.path, options.log_level) as lab:
        _begin(lab, options)
        print("It stays until Ctrl-C.", flush=True)
        while folder.is_up():
            time.sleep(0.2)
        lab.folder.read_info()  # raises LabError with the reason why the lab has ended
    return 0


def _show_addresses(lab: client.Lab) -> None:
    print(
        f"The lab in {lab.folder.path} is up. Its bus:\n\n"
        f"  export DBUS_SYSTEM_BUS_ADDRESS={lab.bus}\n\n"
        f"  store     {lab.info['store']['production']}, {lab.info['store']['sandbox']}\n"
        f"  device    {lab.folder.settings}\n"
        f"  logs      {lab.folder.logs}\n"
        f"  control   {lab.info['control']['address']}\n"
        f"  dashboard {lab.info['control']['dashboard']}",
        flush=True,
    )


def down(options: argparse.Namespace) -> int:
    folder = Folder.at(options.dir)
    print(f"The lab in {folder.path} {'was ended' if client.stop(folder) else 'was not up'}.")
    return 0


def status(options: argparse.Namespace) -> int:
    told = _lab(options).status()
    if options.json:
        _json(told)
        return 0
    device, goods = told["device"], told["catalogue"]
    print(
        f"up          {told['folder']} (processes: lab {told['pid']}, bus {told['bus_pid']}, daemon "
        f"{told['daemon_pid']})\n"
        f"bus         {told['bus']}\n"
        f"dashboard   {told['control']['dashboard']}\n"
        f"store       {told['store']['production']}, {told['store']['sandbox']}\n"
        f"catalogue   {goods['file']}: {goods['apps']} apps, {goods['products']} products, "
        f"{goods['users']} users; {goods['invoices']} invoices now\n"
        f"device      {_device_line(device)}\n"
        f"connection  {_connection_line(told, ': ' + CONNECTION_FAULTS[told['connection']].what)}\n"
        f"faults      {len([f for f in told['faults'] if not f['over']]) or 'none'}"
    )
    for fault in told["faults"]:
        print(f"            {_fault_line(fault)}")
    for endpoint, own in told["answers"].items():
        print(f"own answer  {endpoint}: {own['status']}, {own['type']}, {own['bytes']} bytes")
    return 0


def logs(options: argparse.Namespace) -> int:
    folder = Folder.at(options.dir)
    file = folder.logs / f"{options.part}.log"
    if not file.exists():
        raise LabError(f"no lab has been up in {folder.path}; start one with {folder.command('up')}")
    with named_errors(), open(file, encoding="utf-8", errors="backslashreplace") as log:
        for line in collections.deque(log, options.lines):
            print(line, end="")
        sys.stdout.flush()
        with contextlib.suppress(KeyboardInterrupt):
            while options.follow:
                print(log.read(), end="", flush=True)
                time.sleep(0.1)
    return 0


def doctor(options: argparse.Namespace) -> int:
    """Runs `billingctl doctor` with the daemon's environment, and its view of the certificates' folders."""
    lab, tool = _lab(options), tools.tool("billingctl")
    if tool is None:
        raise LabError("billingctl is not built; build it with `ninja -C build client/billingctl`")
    folder = lab.folder
    command = [*view.bubblewrap(folder.ca_view, folder.certificate_view), "--", str(tool), "doctor", *options.further]
    environment = {**os.environ, **tools.environment(folder, lab.bus, "error")}
    return subprocess.run(command, env=environment, check=False).returncode


# The store


def seed(options: argparse.Namespace) -> int:
    told = _lab(options).seed(options.file)
    print(
        f"{told['apps']} apps, {told['products']} products, {told['countries']} countries, "
        f"{told['users']} users, {told['invoices']} invoices"
    )
    return 0


def reset(options: argparse.Namespace) -> int:
    _lab(options).reset()
    print("No purchase, fault or journal entry since the catalogue was read; the device as it was made.")
    return 0


def usual(options: argparse.Namespace) -> int:
    lab = _lab(options)
    ended = lab.status()["unusual"]
    lab.usual()
    print("\n".join(f"ended: {text}" for text in ended) or "Everything was as usual.")
    return 0


def buy(options: argparse.Namespace) -> int:
    made = _lab(options).buy(
        options.product,
        app=options.app,
        user=options.user,
        country=options.country,
        custom_id=options.custom_id,
        **_given(options, "pending", "approve_after", "decline_after", "after", "period", "grace"),
    )
    return show_invoice(made, options)


def show_invoice(invoice: dict, options: argparse.Namespace) -> int:
    if options.json:
        _json(invoice)
    else:
        print(
            f"{invoice['id']}  {invoice['status']}  {invoice['product']} of {invoice['app']}  "
            f"{invoice['user']}  {invoice['country']}"
        )
    return 0


def invoices(options: argparse.Namespace) -> int:
    found = _lab(options).invoices(options.user)
    if options.json:
        _json(found)
        return 0
    for invoice in found:
        show_invoice(invoice, options)
    if not found:
        print("no invoices")
    return 0


def answer(options: argparse.Namespace) -> int:
    if bool(options.file) == options.built_in:
        raise LabError("name a file with the body, or --built-in")
    with named_errors():
        bodies = [pathlib.Path(file).read_bytes() for file in options.file]
    _lab(options).answer(
        options.endpoint,
        *bodies,
        status=options.status,
        type=options.type,
        template=options.template,
        **_given(options, *WORDS[1:]),
    )
    told = [f"{len(body)} bytes of {file}" for body, file in zip(bodies, options.file)]
    print(f"{options.endpoint}: " + (", then ".join(told) or "built-in"))
    return 0


# Calls


def call(options: argparse.Namespace) -> int:
    values = {}
    for pair in options.values:
        name, equals, value = pair.partition("=")
        if not equals:
            raise LabError(f"{pair!r} is no argument; write NAME=VALUE")
        values[name] = value
    lab = _lab(options)
    try:
        result, text = lab.call(options.method, options.timeout, **values)
    except LabError:
        raise
    except Exception as error:  # GLib.Error; PyGObject is not imported here, since only calls need it
        print(f"billing-lab: no answer: {error}", file=sys.stderr)
        return EXIT_UNREACHABLE
    if options.json:
        _json({"resp_result": result, "resp_info": text})
    else:
        print(f"resp_result {result}\nresp_info   {text}")
        if result != 0:
            command = lab.folder.command
            print(f"billing-lab: why: {command('doctor')}, {command('logs --lines 20')}", file=sys.stderr)
    return EXIT_BY_RESULT.get(result, 1)


# The device


def device(options: argparse.Namespace) -> int:
    told = _lab(options).device(options.switch, options.value)
    if options.json:
        _json(told)
    else:
        print(_device_line(told))
    return 0


def _device_line(told: dict) -> str:
    who = f"{told['signed_in']} ({told['guid']})" if told["signed_in"] else "no user is signed in"
    return (
        f"{who}, country {told['country'] or 'none'}, language {told['language'] or 'none'}, "
        f"{told['server']} server, gateway {told['gateway']}, token {told['token']}"
        + (f", service {told['service']}" if told["service"] != "up" else "")
    )


def names(options: argparse.Namespace) -> int:
    told = _lab(options).names(*options.names, remove=options.remove)
    if options.json:
        _json(told)
    else:
        print("\n".join(told) or "none but the service's own")
    return 0


# Faults


def fault(options: argparse.Namespace) -> int:
    lab = _lab(options)
    if options.kind == "list":
        return _list_faults(lab, options)
    if options.kind == "clear":
        ended = lab.clear_faults(options.number)
        if options.number is None:
            lab.connection("none")
        print(f"{ended} ended" + ("" if options.number else "; connections work"))
    elif options.kind in CONNECTION_FAULTS:
        lab.connection(options.kind, **_given(options, "ms"))
        print(f"{options.kind}: {CONNECTION_FAULTS[options.kind].what}")
    else:
        print(
            _fault_line(
                lab.fault(
                    options.kind,
                    **_given(
                        options,
                        "code",
                        "ms",
                        "spread",
                        "deviation",
                        "choices",
                        "mib",
                        *WORDS,
                        "skip",
                        "count",
                        "seconds",
                        "chance",
                        "seed",
                        "done",
                    ),
                )
            )
        )
    return 0


def _given(options: argparse.Namespace, *names: str) -> dict:
    return {name: getattr(options, name) for name in names if getattr(options, name, None) is not None}


def _connection_line(told: dict, what: str = "") -> str:
    """The fault of all connections, silent connections, and whether the store is down."""
    parts = [told["connection"] + what, *(f"{name} {value}" for name, value in told["connection_options"].items())]
    if told["connections"]["silent"]:
        parts.append(f"{told['connections']['silent']} silent")
    if not told["connections"]["listening"]:
        parts.append("the store is down until its restart ends")
    return ", ".join(parts)


def _list_faults(lab: client.Lab, options: argparse.Namespace) -> int:
    told = lab.status()
    if options.json:
        _json({name: told[name] for name in ("faults", "connection", "connection_options", "connections")})
        return 0
    print(f"connection: {_connection_line(told)}")
    for each in told["faults"]:
        print(_fault_line(each))
    return 0


def _fault_line(told: dict) -> str:
    shown = [
        f"{name} {told[name]}"
        for name in ("code", "ms", "spread", "deviation", "choices", "mib", *WORDS, "skip", "left", "seconds_left", "seed")
        if told.get(name, 0) != 0
    ]
    if told["chance"] < 1:
        shown.append(f"chance {told['chance']}")
    shown.append("after the work" if told["done"] else "in place of the work")
    if told["hits"]:
        shown.append(f"struck {told['hits']}: journal {', '.join(map(str, told['struck']))}")
    if told.get("over"):
        shown.append("over")
    return f"{told['number']}  {told['kind']}  {', '.join(shown)}"


# The journal


def show_journal(options: argparse.Namespace) -> int:
    lab = _lab(options)
    known = lab.journal(last=options.last)
    for entry in _entries_and_new_ones(lab, known) if options.follow else known:
        print(json.dumps(entry) if options.json else journal.line_of(entry), flush=True)
    return 0


def show_calls(options: argparse.Namespace) -> int:
    for told in _lab(options).calls(options.last):
        print(json.dumps(told) if options.json else book.line_of(told))
    return 0


def _entries_and_new_ones(lab: client.Lab, known: list[dict]) -> Iterator[dict]:
    yield from known
    with contextlib.suppress(KeyboardInterrupt):
        yield from lab.follow(after=known[-1]["seq"] if known else 0)


def check(options: argparse.Namespace) -> int:
    entries = [entry for entry in _lab(options).journal(last=options.last) if entry["kind"] == "request"]
    if not entries:
        raise LabError("the journal holds no request; call a method first")
    wrong = [entry for entry in entries if entry["differences"]]
    for entry in entries:
        what = f"{entry['seq']:>5}  {entry['endpoint'] or entry['url']}"
        print(f"{what}  exact" if not entry["differences"] else f"{what}  NOT EXACT")
        for difference in entry["differences"]:
            print(f"         {difference}")
    print(f"{len(entries) - len(wrong)} exact, {len(wrong)} not")
    return 1 if wrong else 0
