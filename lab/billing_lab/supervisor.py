"""A lab's process: runs the store in itself, and the bus and the daemon as its children.

When one part ends, the others are ended. The kernel ends the children when this process is killed.

usage: python3 -m billing_lab.supervisor FOLDER LEVEL REPORT [LIFELINE]

REPORT is a descriptor to which one line is written: "up", or the reason why the lab did not start. LIFELINE is the reading
end of a pipe: the lab ends when the last writing end is closed.
"""
import asyncio
import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys

from .control import control, core
from .device import bus, tools
from .device.service import Daemon, Service
from .folder import Folder, LabError, named_errors, replace_file
from .server import connections, tls
from .shop import state

# Longer than any lab is kept.
CERTIFICATE_DAYS = 3650


def provision(folder: Folder) -> None:
    """Makes the lab's device, unless the folder has one."""
    if folder.settings.exists():
        return
    tool = tools.tool("billing-provision")
    if tool is None:
        raise LabError("billing-provision is not built; build it with `ninja -C build`")
    done = subprocess.run(
        [tool, "lab", folder.device, "--force", "--days", str(CERTIFICATE_DAYS), "--host", *tls.HOSTS],
        capture_output=True,
        text=True,
        check=False,
    )
    if done.returncode != 0:
        raise LabError(f"no device could be made: {done.stderr.strip() or done.returncode}")


def run(folder: Folder, level: str, report, lifeline: int | None) -> str | None:
    """Runs a lab to its end. @return the reason if it ended by itself, None if it was told to end"""
    kept = read_addresses(folder)
    listener, controls = connections.listen(kept.get("store", 0)), connections.listen(kept.get("control", 0))
    provision(folder)
    token = core.prepare_device(folder, listener.getsockname()[1])
    with contextlib.ExitStack() as running:
        started = bus.Bus(folder.path)
        running.callback(started.stop)
        first = Daemon(folder, started.address, level)
        daemon = Service(lambda: Daemon(folder, started.address, level, again=True), first)
        running.callback(daemon.stop)
        first.wait_for_name()
        info = {
            "folder": str(folder.path),
            "pid": os.getpid(),
            "bus": started.address,
            "daemon_pid": first.pid,
            "bus_pid": started.process.pid,
            "store": {name.partition(".")[0]: f"https://{name}:{listener.getsockname()[1]}" for name in tls.HOSTS},
        }
        secret = kept.get("token") or control.new_token()
        address = f"http://127.0.0.1:{controls.getsockname()[1]}"
        # The token is in the fragment, behind "#": a browser sends that part to no server.
        info["control"] = {"address": address, "token": secret, "dashboard": f"{address}/#token={secret}"}
        replace_file(
            folder.addresses,
            json.dumps({"store": listener.getsockname()[1], "control": controls.getsockname()[1], "token": secret}).encode(),
        )
        return asyncio.run(_live(folder, (listener, controls), info, token, (started, daemon), report, lifeline))


def read_addresses(folder: Folder) -> dict:
    """The last lab's ports and token; empty if the file is missing or cannot be read."""
    with contextlib.suppress(OSError, ValueError):
        kept = json.loads(folder.addresses.read_text(encoding="utf-8"))
        if isinstance(kept, dict) and all(isinstance(kept.get(name), int) for name in ("store", "control")):
            return kept
    return {}


async def _live(
    folder: Folder,
    listeners: tuple[socket.socket, socket.socket],
    info: dict,
    token: str,
    parts: tuple[bus.Bus, Service],
    report,
    lifeline: int | None,
) -> str | None:
    """Serves store and control interface until the lab ends.

    @param listeners the store's socket, and the control interface's
    @return as run()
    """
    with contextlib.closing(state.open_state(folder.state)) as db:
        state.set_fact(db, "token", token)
    lab = core.Core(folder, listeners[0], info, parts[1], parts[0])
    if lab.names():
        await lab.allow()
    why: list[str] = []
    lab.watch_calls()
    _watch(lab, parts, why, lifeline)
    store = asyncio.create_task(lab.simulator.connections.run())
    store.add_done_callback(lambda _: lab.end())
    runner = await control.serve(lab, info["control"]["token"], listeners[1])
    replace_file(folder.info, json.dumps(info, indent=2).encode())
    report.write("up\n")
    report.close()
    await lab.ending.wait()
    lab.simulator.clear_faults()
    await runner.cleanup()
    lab.monitor.close()
    store.cancel()
    await asyncio.wait([store])
    lab.db.close()
    if not store.cancelled():
        why.append(f"the store failed: {store.exception()!r}")
    return why[0] if why else None


def _watch(lab: core.Core, parts: tuple[bus.Bus, Service], why: list[str], lifeline: int | None) -> None:
    """Ends the lab on a signal, at the end of the lifeline, or when the bus or the daemon ends."""
    loop = asyncio.get_running_loop()
    for number in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(number, lab.end)
    if lifeline is not None:
        loop.add_reader(lifeline, lab.end)
    started, daemon = parts

    def watch(name: str, process: subprocess.Popen) -> None:
        descriptor = os.pidfd_open(process.pid)
        loop.add_reader(descriptor, ended, name, process, descriptor)

    def ended(name: str, process: subprocess.Popen, descriptor: int) -> None:
        loop.remove_reader(descriptor)
        os.close(descriptor)
        if name == "the daemon" and not daemon.is_wanted(process):
            return
        why.append(f"{name} ended with status {process.wait()}")
        lab.end()

    def watch_next(process: subprocess.Popen) -> None:
        lab.info["daemon_pid"] = daemon.daemon.pid
        watch("the daemon", process)

    watch("the bus", started.process)
    watch("the daemon", daemon.daemon.process)
    daemon.watch = watch_next


def main(arguments: list[str]) -> int:
    os.umask(0o077)
    os.chdir("/")
    # A shell starts background commands with SIGINT ignored, and the daemon would inherit that.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    folder, level = Folder(pathlib.Path(arguments[0])), arguments[1]
    report = os.fdopen(int(arguments[2]), "w", encoding="utf-8")
    lifeline = int(arguments[3]) if len(arguments) > 3 else None
    os.set_inheritable(report.fileno(), False)
    if lifeline is not None:
        os.set_inheritable(lifeline, False)
    taken = folder.lock()
    if taken is None:
        print("another lab was started here at the same moment", file=report)
        return 1
    folder.reason.unlink(missing_ok=True)
    try:
        with named_errors():
            why = run(folder, level, report, lifeline)
    except (LabError, RuntimeError) as error:
        print(str(error).replace("\n", " "), file=report)
        return 1
    finally:
        folder.info.unlink(missing_ok=True)
    if why is not None:
        replace_file(folder.reason, f"it ended because {why}".encode())
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
