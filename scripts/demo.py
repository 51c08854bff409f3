"""The part of scripts/demo after the build: starts a lab, calls all five methods with billingctl, and shows the requests."""
import contextlib
import json
import pathlib
import shlex
import signal
import subprocess
import sys
import tempfile
import textwrap

TREE = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "lab"))

from billing_lab import client  # noqa: E402
from billing_lab.device import tools  # noqa: E402
from billing_lab.folder import LabError  # noqa: E402

APP = "app-1"


def calls(invoice):
    """The five methods as subcommands of billingctl, with their options."""
    payment = ("--appid", APP, "--custom-id", "custom-1", "--invoiceid", invoice)
    return {
        "check-server-availability": (),
        "get-product-list": ("--appid", APP, "--check-value", "check-1"),
        "get-purchase-history": ("--appid", APP),
        "get-applied-time": payment,
        "confirm-purchase": payment,
    }


def show(title, text):
    print(f"  {title}")
    print(textwrap.indent(text.strip(), "    "))


def question(entry):
    """A request of the journal as text."""
    headers = "".join(f"\n{name}: {value}" for name, value in entry["headers"])
    return f"{entry['method']} {entry['url']}{headers}\n\n{entry['body']['text']}"


def call_all(lab, program):
    """@return how many methods returned the store's body, and how many there are"""
    good = 0
    invoice = lab.buy("coins-100")["id"]
    for method, words in calls(invoice).items():
        before = lab.journal(last=1)
        command = [str(program), "--bus", lab.bus, "--json", method, *words]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        print(f"\nbillingctl {shlex.join([method, *words])}")
        entries = lab.journal(after=before[0]["seq"] if before else 0)
        for entry in entries:
            show("the store was asked", question(entry))
        got = json.loads(done.stdout)
        answer = (got.get("resp_result"), got.get("resp_info"))
        show("the caller got", str(answer if "resp_result" in got else got))
        good += [answer] == [(0, entry["answer"]["text"]) for entry in entries]
    return good, len(calls(invoice))


def run(folder, keep):
    program = tools.tool("billingctl")
    if program is None:
        raise LabError("billingctl is not built")
    with client.running(folder) as lab:
        good, count = call_all(lab, program)
        print(f"\n{good} of {count} methods came back with the store's body")
        if keep:
            stay(lab, program)
    print("The lab has ended.")
    return 0 if good == count else 1


def stay(lab, program):
    command = f"{TREE / 'lab' / 'billing-lab'} --dir {lab.folder.path}"
    print(
        textwrap.dedent(
            f"""
        It stays until Ctrl-C. In another terminal:
          export DBUS_SYSTEM_BUS_ADDRESS={lab.bus}
          {program} get-product-list --appid {APP}
          {command} --help
        settings, read again when they change:  {lab.folder.settings}
        store:                                  {lab.info['store']['production']}
        log of the daemon:                      {lab.folder.logs / 'daemon.log'}"""
        ),
        flush=True,
    )
    with contextlib.suppress(KeyboardInterrupt):
        signal.pause()


def main():
    # SIGTERM raises KeyboardInterrupt as Ctrl-C does, so that the lab is ended too.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with tempfile.TemporaryDirectory(prefix="billing-demo-") as folder:
        try:
            return run(pathlib.Path(folder) / "lab", "--keep" in sys.argv)
        except LabError as error:
            print(f"demo: {error}", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            print("demo: stopped")
            return 1


if __name__ == "__main__":
    sys.exit(main())
