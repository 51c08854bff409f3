"""The operations of a lab that is up, for its control interface: on the store, the device, the bus, and the checks."""
import asyncio
import pathlib
import shutil
import socket

from ..calls.book import Book
from ..calls.monitor import Monitor
from ..checks import asked, report
from ..device import device
from ..device.bus import Bus, check_name
from ..device.device import Changes, Settings
from ..device.service import Service
from ..folder import Folder, LabError
from ..life import clock, purchase
from ..own import answers
from ..server import tls
from ..server.simulator import Simulator
from ..shop import catalogue, journal, purchases, state
from ..shop.matching import PAYMENTS

# The members of a request for `buy` that plan the purchase's life.
LIFE_WORDS = ("pending", "approve_after", "decline_after", "after", "period", "grace")
# Changes within this time are reported to followers as one.
BURST_SECONDS = 0.1


class Core:
    """A lab's parts, and the operations on them. Its methods are called from the event loop only."""

    def __init__(self, folder: Folder, listener: socket.socket, info: dict, service: Service, own_bus: Bus):
        self.folder = folder
        self.info = info
        self.service = service
        self._bus = own_bus
        self.db = state.open_state(folder.state)
        self.certificate = tls.fingerprint(folder.certificate_view / "bgclient.crt")
        self.followers = journal.Followers()
        self.simulator = Simulator(self.db, listener, folder.device, self.device_facts, self._on_entry)
        self.simulator.connections.changed = self.changed
        self._change: asyncio.TimerHandle | None = None
        self._seeds = 0
        self.expectations: list[asked.Expectation] = []
        self.calls = Book(self.db)
        self.monitor: Monitor | None = None
        self.ending = asyncio.Event()
        if state.fact(self.db, "catalogue") is None:
            self.take(catalogue.load(catalogue.DEFAULT_FILE), catalogue.DEFAULT_FILE)

    # Followers of the journal and of the state

    def _on_entry(self, event: str, entry: dict) -> None:
        self.followers.tell(event, entry)
        if entry.get("fault") or entry.get("endpoint") in PAYMENTS:
            self.changed()

    def changed(self) -> None:
        """Reports to followers that something other than the journal has changed: once for a burst of changes."""
        if self._change is None:
            self._change = asyncio.get_running_loop().call_later(BURST_SECONDS, self._tell_change)

    def _tell_change(self) -> None:
        self._change = None
        self.followers.tell("state", self.status())

    def status(self) -> dict:
        now = asyncio.get_running_loop().time()
        told = [{**fault.describe(now), "over": fault.is_over(now)} for fault in self.simulator.faults]
        return {
            **self.info,
            "device": self.device(),
            "catalogue": self.summary(),
            "faults": told,
            "answers": answers.describe(self.db),
            "names": self.names(),
            "expectations": [each.describe() for each in self.expectations],
            "unusual": self.unusual(),
            "clock": clock.describe(self.db),
            "ahead": state.events(self.db),
            "journal": journal.span(self.db),
            **self.simulator.connections.describe(),
        }

    # The device

    def device_facts(self) -> dict:
        return device.facts(device.read(self.folder.settings), self.certificate)

    def device(self) -> dict:
        told = device.describe(device.read(self.folder.settings), state.fact(self.db, "token"))
        refusing = self.service.state == "up" and not device.value(device.read(self.folder.settings), device.HOSTS[0])
        return {**told, "service": "refusing" if refusing else self.service.state}

    async def turn(self, name: str, wanted: str) -> dict:
        """Sets a switch of the device, or the state of its service. @return the device"""
        if name != "service":
            return self.switch(name, wanted)
        await self.service.switch("up" if wanted == "refusing" else wanted)
        # Without the store's host the service cannot submit a request, and answers "Try again later."
        hosts = dict.fromkeys(device.HOSTS) if wanted == "refusing" else self._hosts()
        device.change(self.folder.settings, hosts)
        return self.device()

    def _hosts(self) -> Changes:
        addresses = self.info["store"].items()
        return {("deployment", f"{name}_host"): address.removeprefix("https://") for name, address in addresses}

    def switch(self, name: str, wanted: str) -> dict:
        users = state.fact(self.db, "catalogue")["users"]
        changes = device.switched(name, wanted, users, state.fact(self.db, "token"))
        device.change(self.folder.settings, changes)
        return self.device()

    # The bus

    def names(self) -> list[str]:
        """The names that programs may own on the lab's bus besides the service's, for mocks of other services."""
        return state.fact(self.db, "names", [])

    async def allow(self, *names: str) -> list[str]:
        """Adds names that programs may own. @return all such names"""
        return await self._set_names([*self.names(), *(check_name(name) for name in names if name not in self.names())])

    async def forbid(self, *names: str) -> list[str]:
        """Removes names that programs may own; without an argument, all. A program that owns one keeps it.

        @return the names that are left"""
        for name in names:
            if name not in self.names():
                raise LabError(f"{name!r} is not among the names of the bus: {', '.join(self.names()) or 'none'}")
        return await self._set_names([name for name in self.names() if names and name not in names])

    async def _set_names(self, names: list[str]) -> list[str]:
        state.set_fact(self.db, "names", names)
        await asyncio.to_thread(self._bus.allow, names)
        return names

    # The store

    async def seed(self, file: pathlib.Path) -> dict:
        """Replaces the catalogue by that of a file. A large file takes seconds: it is read in a thread, so that the store
        answers meanwhile."""
        return self.take(await asyncio.to_thread(catalogue.load, file), file)

    def take(self, read: dict, file: pathlib.Path) -> dict:
        """Replaces the catalogue by one that was read. If the user who is signed in is not in it, its first user is signed
        in."""
        state.seed(self.db, read)
        signed_in = self.device()["signed_in"]
        if signed_in and signed_in not in [user["uid"] for user in read["users"]]:
            self.switch("signed-in", read["users"][0]["uid"])
        for name, wanted in read.get("device", {}).items():
            self.switch(name, wanted)
        state.set_fact(self.db, "seed", str(file))
        self._seeds += 1
        return self.summary()

    def _usual_settings(self) -> Settings:
        """The settings of a new device, changed by the switches that the catalogue sets."""
        made = device.read(self.folder.settings.with_name("device.initial"))
        device.apply(made, self._hosts())
        read, token = state.fact(self.db, "catalogue"), state.fact(self.db, "token")
        switches = dict(read.get("device", {}))
        if device.value(made, device.UID) not in [user["uid"] for user in read["users"]]:
            switches.setdefault("signed-in", read["users"][0]["uid"])
        for name, wanted in switches.items():
            device.apply(made, device.switched(name, wanted, read["users"], token))
        return made

    def unusual(self) -> list[str]:
        """One short text for each setting that differs from the catalogue and from a new device."""
        usual = {**device.describe(self._usual_settings(), state.fact(self.db, "token")), "service": "up"}
        now = asyncio.get_running_loop().time()
        told = [
            f"device: {name.replace('_', ' ')} {value or 'none'}, usually {usual[name] or 'none'}"
            for name, value in self.device().items()
            if value != usual[name] and name != "guid"
        ]
        own = state.fact(self.db, "catalogue").get("answers", {})
        told += [
            f"own answer at {endpoint}"
            for endpoint, answer in state.fact(self.db, "answers", {}).items()
            if own.get(endpoint) != {key: part for key, part in answer.items() if key != "given"}
        ]
        told += [
            f"answer built in at {endpoint}, not the catalogue's"
            for endpoint in own
            if endpoint not in state.fact(self.db, "answers", {})
        ]
        told += [
            f"fault {fault.kind} at {fault.match.endpoint or 'every endpoint'}"
            for fault in self.simulator.faults
            if not fault.is_over(now)
        ]
        ahead = state.fact(self.db, "clock_ahead", 0)
        told += [f"clock: {ahead} seconds ahead"] if ahead else []
        return told + self.simulator.connections.unusual()

    async def usual(self) -> None:
        """Sets back what unusual() lists, except the clock, which has dated purchases. Purchases and journal stay."""
        self.simulator.clear_faults()
        self.simulator.connections.switch("none")
        state.set_fact(self.db, "answers", state.fact(self.db, "catalogue").get("answers", {}))
        device.write(self.folder.settings, self._usual_settings())
        await self.service.switch("up")
        await self.simulator.connections.dropped()

    def summary(self) -> dict:
        read = state.fact(self.db, "catalogue")
        return {
            "file": state.fact(self.db, "seed"),
            "number": self._seeds,
            "products": sum(len(app["products"]) for app in read["apps"]),
            **{name: len(read[name]) for name in ("apps", "countries", "users")},
            "invoices": state.count_invoices(self.db),
        }

    def watch_calls(self) -> None:
        self.monitor = Monitor(self.info["bus"], self.calls)

    async def all_calls(self) -> Book:
        """The calls on the bus, with every answer that its caller has."""
        await self.monitor.catch_up()
        return self.calls

    def reset(self) -> None:
        """Restores the state after the last seed: removes later purchases, faults and entries, and sets the device back."""
        self.simulator.reset()
        self.expectations = []
        self.calls.clear()
        state.seed(self.db, state.fact(self.db, "catalogue"))
        journal.clear(self.db)
        device.write(self.folder.settings, self._usual_settings())

    async def reset_whole(self) -> None:
        """Does reset(), starts the service, and waits until all connections have ended."""
        await self.all_calls()
        self.reset()
        await self.service.switch("up")
        await self.simulator.connections.dropped()

    def step(self, wanted: dict) -> dict:
        """Takes a step of a purchase, or plans it. @return the invoice"""
        purchase.happen(self.db)
        return purchase.step(self.db, wanted["invoice"], wanted["step"], wanted.get("after"))

    def advance(self, span: object) -> dict:
        """Moves the lab's clock forward and takes the steps that are then due. @return clock and number of steps"""
        clock.advance(self.db, clock.seconds_of(span, "advance"))
        return {**clock.describe(self.db), "happened": purchase.happen(self.db)}

    def buy(self, wanted: dict) -> dict:
        """Buys a product. User and country default to the device's, the app to the first one that sells the product.

        @return the invoice"""
        now, apps = self.device(), state.fact(self.db, "catalogue")["apps"]
        product = wanted["product"]
        sellers = [app["id"] for app in apps if product in [p["id"] for p in app["products"]]]
        first = (sellers or [app["id"] for app in apps] or [""])[0]
        return purchases.buy(
            self.db,
            product=product,
            app=wanted.get("app") or first,
            user=wanted.get("user") or now["signed_in"] or "",
            country=wanted.get("country") or now["country"] or "",
            custom_id=wanted.get("custom_id"),
            life={key: wanted[key] for key in LIFE_WORDS if wanted.get(key) is not None},
        )

    def set_answer(self, wanted: dict) -> None:
        """Sets an own answer of an endpoint; without a body restores the built-in one."""
        answers.put(self.db, wanted)

    # Checks of the app

    def report(self, wanted: dict) -> tuple[dict, list[dict]]:
        """@return the result of report.make() for the run since the last reset, and the journal"""
        entries = journal.entries(self.db)
        return report.make(entries, state.invoices(self.db), self.expectations, wanted), entries

    def end(self) -> None:
        self.ending.set()
        self.followers.end()


def prepare_device(folder: Folder, port: int) -> str:
    """Prepares the files that the daemon reads: copies the certificates into its view, keeps a copy of the device's first
    settings, and sets the store's hosts in the present ones.

    @return the token that the store accepts
    """
    for source, shown in (
        (folder.device / "ca.pem", folder.ca_view),
        (folder.device / "bgclient.crt", folder.certificate_view),
    ):
        shutil.copy(source, shown)
    initial = folder.settings.with_name("device.initial")
    if not initial.exists():
        made = device.read(folder.settings)
        # The daemon's default is the sandbox server. An app is tested against the production one, which it will use.
        made["system"][device.SERVER[1]] = device.SERVERS["production"]
        device.write(initial, made)
        device.write(folder.settings, made)
    hosts = {("deployment", f"{name}_host"): f"{name}.localhost:{port}" for name in ("production", "sandbox")}
    device.change(folder.settings, hosts)
    return device.value(device.read(initial), device.TOKEN)
