"""A lab that is up, as its control interface sees it: the store, the device in front of it, and who
follows the journal."""
import asyncio
import pathlib
import shutil
import socket

from . import catalogue, device, journal, purchases, state, tls
from .bus import Bus, check_name
from .calls.book import Book
from .checks import asked, report
from .device import Changes, Settings
from .folder import Folder, LabError
from .life import clock, purchase
from .matching import PAYMENTS
from .own import answers
from .service import Service
from .simulator import Simulator

# What `buy` says of the life that a purchase will have.
LIFE_WORDS = ("pending", "approve_after", "decline_after", "after", "period", "grace")
# Changes that come closer together are told as one.
BURST_SECONDS = 0.1


class Core:
    """What can be asked of a lab, and done with it."""

    def __init__(self, folder: Folder, listener: socket.socket, info: dict, service: Service, own_bus: Bus):
        self.folder = folder
        self.info = info
        self.service = service
        self._bus = own_bus
        self.db = state.open_state(folder.state)
        self.certificate = tls.fingerprint(folder.certificate_view / "bgclient.crt")
        self.followers = journal.Followers()
        self.simulator = Simulator(self.db, listener, folder.device, self.device_facts, self._told)
        self.simulator.connections.changed = self.changed
        self._change: asyncio.TimerHandle | None = None
        self._seeds = 0
        self.expectations: list[asked.Expectation] = []
        self.calls = Book(self.db)
        self.ending = asyncio.Event()
        if state.fact(self.db, "catalogue") is None:
            self.take(catalogue.load(catalogue.DEFAULT_FILE), catalogue.DEFAULT_FILE)

    # Who follows

    def _told(self, event: str, entry: dict) -> None:
        self.followers.tell(event, entry)
        if entry.get("fault") or entry.get("endpoint") in PAYMENTS:
            self.changed()

    def changed(self) -> None:
        """Something other than the journal is new. Those who follow are told once for a burst of changes."""
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
        """A switch of the device, or the state of its service."""
        if name != "service":
            return self.switch(name, wanted)
        await self.service.switch("up" if wanted == "refusing" else wanted)
        # Without a host the service cannot submit a request: "Try again later."
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
        """What programs may own on the lab's bus beside the service, for mocks of other services."""
        return state.fact(self.db, "names", [])

    async def allow(self, *names: str) -> list[str]:
        """Lets programs own these too."""
        return await self._set_names([*self.names(), *(check_name(name) for name in names if name not in self.names())])

    async def forbid(self, *names: str) -> list[str]:
        """Programs may own these no more, without any of them none at all. Who owns one keeps it."""
        for name in names:
            if name not in self.names():
                raise LabError(f"{name!r} is none of the names of the bus: {', '.join(self.names()) or 'none'}")
        return await self._set_names([name for name in self.names() if names and name not in names])

    async def _set_names(self, names: list[str]) -> list[str]:
        state.set_fact(self.db, "names", names)
        await asyncio.to_thread(self._bus.allow, names)
        return names

    # The store

    async def seed(self, file: pathlib.Path) -> dict:
        """A new catalogue. It is read in a thread: a large one takes seconds, in which the store answers."""
        return self.take(await asyncio.to_thread(catalogue.load, file), file)

    def take(self, read: dict, file: pathlib.Path) -> dict:
        """A catalogue that was read. Somebody of it is signed in, unless nobody was."""
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
        """The device as it was made, with what the catalogue sets."""
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
        """All that is not as the catalogue and a new device have it, each in a few words."""
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
        """Ends all of that, but for the clock: purchases are dated by it. Purchases and journal stay."""
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

    def reset(self) -> None:
        """As it was after the last seed: no purchase, fault or entry since, the device as it was made."""
        self.simulator.reset()
        self.expectations = []
        self.calls.clear()
        state.seed(self.db, state.fact(self.db, "catalogue"))
        journal.clear(self.db)
        device.write(self.folder.settings, self._usual_settings())

    async def reset_whole(self) -> None:
        """As reset(), and what was connected has ended when it returns."""
        self.reset()
        await self.service.switch("up")
        await self.simulator.connections.dropped()

    def step(self, wanted: dict) -> dict:
        """A step of a purchase, now or later."""
        purchase.happen(self.db)
        return purchase.step(self.db, wanted["invoice"], wanted["step"], wanted.get("after"))

    def advance(self, span: object) -> dict:
        """The lab's clock, moved forward, and what is due then."""
        clock.advance(self.db, clock.seconds_of(span, "advance"))
        return {**clock.describe(self.db), "happened": purchase.happen(self.db)}

    def buy(self, wanted: dict) -> dict:
        """What is not said is the device's, or the first of the catalogue."""
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
        """A body of one's own for an endpoint; without a body the built-in one again."""
        answers.put(self.db, wanted)

    # Checks of the app

    def report(self, wanted: dict) -> tuple[dict, list[dict]]:
        """@return what report.make() says of the run since the last reset, and the journal"""
        entries = journal.entries(self.db)
        return report.make(entries, state.invoices(self.db), self.expectations, wanted), entries

    def end(self) -> None:
        self.ending.set()
        self.followers.end()


def prepare_device(folder: Folder, port: int) -> str:
    """Points the device at the store. @return the token that the store takes from it"""
    for source, shown in (
        (folder.device / "ca.pem", folder.ca_view),
        (folder.device / "bgclient.crt", folder.certificate_view),
    ):
        shutil.copy(source, shown)
    initial = folder.settings.with_name("device.initial")
    if not initial.exists():
        made = device.read(folder.settings)
        # The daemon's default is the sandbox; a shop is tried where it will stand.
        made["system"][device.SERVER[1]] = device.SERVERS["production"]
        device.write(initial, made)
        device.write(folder.settings, made)
    hosts = {("deployment", f"{name}_host"): f"{name}.localhost:{port}" for name in ("production", "sandbox")}
    device.change(folder.settings, hosts)
    return device.value(device.read(initial), device.TOKEN)
