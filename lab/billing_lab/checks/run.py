"""Runs a command with a lab of its own, ends both, and judges the command's requests."""
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterator

from ..client import Lab, running
from ..folder import LabError, named_errors

TOO_LONG = 124
_END_SECONDS = 5


def run(
    command: list[str], folder: str | None, seconds: int | None, begin: Callable[[Lab], None], judge: Callable[[Lab], bool]
) -> int:
    """@param folder the lab's folder; None for a temporary one
    @param seconds after which the command is ended; None for no limit
    @param begin prepares the lab before the command starts
    @param judge called when the command has ended; prints and writes the report. Returns whether all is good
    @return the exit status that `billing-lab run` describes
    """
    words = command[1:] if command[:1] == ["--"] else command
    if not words:
        raise LabError("name the command to run: billing-lab run -- COMMAND")
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.default_int_handler)
    with _lab_folder(folder) as place, named_errors(), running(place) as lab:
        begin(lab)
        status = _run_command(words, lab, seconds)
        good = judge(lab)
    if status != 0:
        print(f"billing-lab: {words[0]} ended with status {status}", file=sys.stderr)
        return status
    return 0 if good else 1


@contextlib.contextmanager
def _lab_folder(folder: str | None) -> Iterator[pathlib.Path]:
    if folder is not None:
        yield pathlib.Path(folder)
        return
    with tempfile.TemporaryDirectory(prefix="billing-lab-") as made:
        yield pathlib.Path(made) / "lab"


def _run_command(words: list[str], lab: Lab, seconds: int | None) -> int:
    """Runs the command, and then ends the processes that are left of its process group. @return its exit status"""
    environment = {
        **os.environ,
        # A script around the app calls this billing-lab by its name.
        "PATH": f"{pathlib.Path(sys.argv[0]).resolve().parent}{os.pathsep}{os.environ.get('PATH', os.defpath)}",
        "DBUS_SYSTEM_BUS_ADDRESS": lab.bus,
        "BILLING_LAB_DIR": str(lab.folder.path),
    }
    try:
        process = subprocess.Popen(words, env=environment, process_group=0)
    except OSError as error:
        raise LabError(f"{words[0]}: {error.strerror}; name a command that can be run") from None
    try:
        status = process.wait(seconds)
    except subprocess.TimeoutExpired:
        print(f"billing-lab: {words[0]} took longer than {seconds} seconds", file=sys.stderr)
        status = TOO_LONG
    finally:
        _end_group(process)
    return 128 - status if status < 0 else status


def _end_group(process: subprocess.Popen) -> None:
    for number in (signal.SIGTERM, signal.SIGKILL):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, number)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(_END_SECONDS)
