"""A lab's folder, which holds all files of the lab: their paths, its lock, and its checks."""
import contextlib
import dataclasses
import fcntl
import json
import os
import pathlib
import shlex
import stat
from collections.abc import Iterator


# Folders that make() makes: they are there without a lock file after a start that failed early.
_MADE = {"logs", "run", "view"}
EMPTY_NAME = "the folder's name is empty; name a folder, or leave out --dir for the default"


class LabError(Exception):
    """An error for the user: what went wrong and what to do, in one line."""


def default_path() -> pathlib.Path:
    state = os.environ.get("XDG_STATE_HOME", "")
    home = pathlib.Path(state) if os.path.isabs(state) else pathlib.Path.home() / ".local" / "state"
    return home / "billing-lab" / "default"


def absolute(path: pathlib.Path | str) -> pathlib.Path:
    """@return the path from the root. @throw LabError if the working folder is needed for it, and is gone"""
    try:
        return pathlib.Path(path).absolute()
    except FileNotFoundError:
        raise LabError(f"{path}: the working folder was deleted; change into another one") from None


@dataclasses.dataclass(frozen=True)
class Folder:
    """The folder and the paths in it."""

    path: pathlib.Path

    @classmethod
    def at(cls, path: pathlib.Path | str | None) -> "Folder":
        """@param path None for $BILLING_LAB_DIR, and without that the default
        @throw LabError if it is empty, or in a working folder that is gone
        """
        if path == "":
            raise LabError(EMPTY_NAME)
        chosen = path or os.environ.get("BILLING_LAB_DIR") or default_path()
        return cls(absolute(chosen))

    def command(self, words: str) -> str:
        """@return a command line on this folder, for a hint; it names the folder unless that one is taken anyway"""
        option = "" if self == Folder.at(None) else f"--dir {shlex.quote(str(self.path))} "
        return f"`billing-lab {option}{words}`"

    @property
    def info(self) -> pathlib.Path:
        return self.path / "lab.json"

    @property
    def state(self) -> pathlib.Path:
        return self.path / "state.sqlite"

    @property
    def logs(self) -> pathlib.Path:
        return self.path / "logs"

    @property
    def device(self) -> pathlib.Path:
        """The device's files, which billing-provision makes."""
        return self.path / "device"

    @property
    def settings(self) -> pathlib.Path:
        return self.device / "device.conf"

    @property
    def ca_view(self) -> pathlib.Path:
        """The folder that the daemon sees as its folder of trusted authorities."""
        return self.path / "view" / "ca"

    @property
    def certificate_view(self) -> pathlib.Path:
        return self.path / "view" / "certificate"

    @property
    def addresses(self) -> pathlib.Path:
        """The file with ports and token of the last lab in this folder, so that the next one has the same."""
        return self.path / "addresses.json"

    @property
    def reason(self) -> pathlib.Path:
        """The file with the reason why the last lab in this folder ended by itself."""
        return self.path / "ended"

    def check_owner(self) -> None:
        """Refuses a folder that another user owns or may access: its files name programs and modules that this user runs."""
        status = os.stat(self.path)
        if status.st_uid != os.geteuid():
            raise LabError(f"{self.path} is another user's; name a folder of your own with --dir")
        if stat.S_IMODE(status.st_mode) & 0o077:
            if not self.is_made():
                raise LabError(f"{self.path} is open to others; name a new folder with --dir, and the lab makes it")
            raise LabError(
                f"{self.path} is open to others; `chmod 700 {shlex.quote(str(self.path))}` if you trust what is in it, or "
                "name another folder with --dir"
            )

    def is_made(self) -> bool:
        """@return whether a lab has been up in this folder. Some system folders have a folder or a link `lock`."""
        try:
            return stat.S_ISREG(os.lstat(self.path / "lock").st_mode)
        except (FileNotFoundError, NotADirectoryError):
            return False

    def make(self) -> None:
        # A bus address may be 107 bytes long at most.
        if len(os.fsencode(self.path / "bus")) > 100:
            raise LabError(
                f"the path {self.path} is too long for a socket; choose a folder with a path of 90 bytes at most with --dir"
            )
        if "=" in str(self.path):
            raise LabError(
                f'the path {self.path} has a "=", which the token\'s settings cannot hold; ' "choose another folder with --dir"
            )
        try:
            self.path.mkdir(mode=0o700, parents=True, exist_ok=True)
            # Before the check of the owner, which advises chmod: that advice is for labs only.
            if not self.is_made() and {file.name for file in self.path.iterdir()} - _MADE:
                raise LabError(f"{self.path} has other things in it; name an empty folder, or a new one, with --dir")
            self.check_owner()
            for made in (self.logs, self.path / "run", self.ca_view, self.certificate_view):
                made.mkdir(mode=0o700, parents=True, exist_ok=True)
        except OSError as error:
            raise LabError(f"{error.filename}: {error.strerror}; choose another folder with --dir") from None

    def lock(self, how: int = fcntl.LOCK_EX) -> int | None:
        """Locks the folder until this process ends.

        @param how fcntl.LOCK_EX, or LOCK_SH, which several processes may have at the same time
        @return the lock's descriptor; None if another process has the lock
        """
        taken = os.open(self.path / "lock", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        try:
            fcntl.flock(taken, how | fcntl.LOCK_NB)
        except BlockingIOError:
            os.close(taken)
            return None
        return taken

    def is_up(self) -> bool:
        """@return whether a lab is up in this folder. @throw LabError if the folder is another user's"""
        try:
            if not self.is_made():
                return False
            self.check_owner()
            # Shared: two processes that look at the same moment do not take each other for a lab.
            taken = self.lock(fcntl.LOCK_SH)
        except PermissionError:
            raise LabError(f"the lab in {self.path} is somebody else's; name a folder of your own with --dir") from None
        if taken is None:
            return True
        os.close(taken)
        return False

    def read_info(self) -> dict:
        """@return addresses and process ids of the lab that is up in this folder. @throw LabError if none is"""
        if self.is_up():
            with contextlib.suppress(FileNotFoundError):
                return json.loads(self.info.read_text(encoding="utf-8"))
            raise LabError(f"the lab in {self.path} is just starting or ending; try again")
        why = ""
        with contextlib.suppress(FileNotFoundError):
            why = f" ({self.reason.read_text(encoding='utf-8').strip()})"
        raise LabError(f"no lab is up in {self.path}{why}; start it with {self.command('up')}")


def last_line(log: pathlib.Path) -> str:
    """@return the last line of a log that is not empty: usually the error that ended a program"""
    lines = log.read_text(encoding="utf-8", errors="backslashreplace").split("\n")
    return next((line.strip() for line in reversed(lines) if line.strip()), f"{log} is empty")


def replace_file(file: pathlib.Path, data: bytes) -> None:
    """Replaces a file at once, so that no reader sees a part of it. Only its owner may read it."""
    fresh = file.with_name(file.name + ".new")
    with open(fresh, "wb", opener=_private) as out:
        out.write(data)
    os.replace(fresh, file)


def _private(path: str, flags: int) -> int:
    return os.open(path, flags, 0o600)


@contextlib.contextmanager
def named_errors() -> Iterator[None]:
    """Raises an OSError of the block as LabError, with the file's name."""
    try:
        yield
    except OSError as error:
        raise LabError(f"{error.filename or 'the lab'}: {error.strerror or error}") from None
