"""Instructions and allocations of one call, counted by valgrind: the same in every run, on a busy machine too.

A program is run with few calls and with many; the difference is the calls'. One run of each therefore has
the same start, the same end and the same filling of caches in it.
"""
import pathlib
import re
import time

from . import services, stage

FEW, MANY = 200, 1200
WARM_UP = 20
CONNECTED_SECONDS = 4  # for all that are in flight, under valgrind, and the second that they wait for one another
ALLOCATORS = ("malloc", "calloc", "realloc", "memalign", "posix_memalign", "aligned_alloc")


class Callgrind:
    """One run under callgrind, and what it counted."""

    def __init__(self, folder, name):
        self._file = pathlib.Path(folder) / f"callgrind.{name}"
        self._file.unlink(missing_ok=True)

    @property
    def tool(self):
        return ("valgrind", "--quiet", "--tool=callgrind", "--compress-strings=no", f"--callgrind-out-file={self._file}")

    def counted(self):
        """@return (instructions, allocations)"""
        text = self._file.read_text()
        total = re.search(r"^(?:totals|summary): (\d+)", text, re.MULTILINE)
        allocations = 0
        for function, calls in re.findall(r"^cfn=(\S+)\ncalls=(\d+)", text, re.MULTILINE):
            if function in ALLOCATORS:
                allocations += int(calls)
        return int(total[1]), allocations


def _of_service(on, service, calls, in_flight, size):
    callgrind = Callgrind(on.folder, f"{service.bus_name}.{calls}")
    service.start(callgrind.tool)
    # A handshake is slow under valgrind: calls at once would not wait for the first one's session.
    on.call(service.bus_name, 1, 1, size)
    # How many connections a load opens differs from run to run, and each costs as much as several calls.
    # While the server hangs, each call opens its own, or each of a service's own bound.
    with stage.Hanging(on):
        callers = on.call(service.bus_name, in_flight, in_flight, size, wait=False)
        time.sleep(CONNECTED_SECONDS)
    callers.communicate()
    on.call(service.bus_name, WARM_UP * in_flight, in_flight, size)
    on.call(service.bus_name, calls, in_flight, size)
    service.stop()
    return callgrind.counted()


def _of_bus_floor(on, calls, in_flight, size):
    callgrind = Callgrind(on.folder, f"bus.{calls}")
    process = on.start_bus_floor(size, callgrind.tool)
    on.call(stage.floor_name(size), calls, in_flight, size)
    process.terminate()
    process.wait()
    return callgrind.counted()


def _of_https_floor(on, calls, in_flight, size):
    callgrind = Callgrind(on.folder, f"https.{calls}")
    on.fetch(calls, in_flight, size, callgrind.tool)
    return callgrind.counted()


def _counters(on):
    """@return by its label, what counts a program"""
    counters = {"bus floor": _of_bus_floor, "HTTPS floor": _of_https_floor}
    for service in services.everyone(on):
        counters[service.label] = lambda on, *load, service=service: _of_service(on, service, *load)
    return counters


def labels(on):
    """@return whose calls can be counted"""
    return list(_counters(on))


def of(on, who, in_flight, size):
    """@return what one call costs: {"instructions": ..., "allocations": ...}"""
    count = _counters(on)[who]
    few, many = (count(on, calls + in_flight, in_flight, size) for calls in (FEW, MANY))
    instructions, allocations = ((m - f) / (MANY - FEW) for f, m in zip(few, many))
    return {"instructions": round(instructions), "allocations": round(allocations, 1)}
