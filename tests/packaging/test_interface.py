"""The introspection XML equals that of the live object."""
from gi.repository import Gio

from billing_lab.device import bus as message_bus

NAME = "org.plevo.billingservice"


def described(node):
    """The parts of an interface that a caller sees: methods, arguments, their types; signals and properties."""
    interface = node.lookup_interface(NAME)
    return {
        "methods": [
            (method.name, [(a.name, a.signature) for a in method.in_args], [(a.name, a.signature) for a in method.out_args])
            for method in interface.methods
        ],
        "signals": [signal.name for signal in interface.signals],
        "properties": [known.name for known in interface.properties],
    }


def test_the_live_object_shows_the_interface_that_is_installed(folder, installed, run_service):
    xml = installed.one("interfaces/org.plevo.billingservice.xml").read_text(encoding="utf-8")
    bus = message_bus.Bus(folder)
    try:
        run_service(bus.address, prefix=())
        caller = message_bus.Caller(bus.address)
        live = described(caller.introspect())
        caller.close()
    finally:
        bus.stop()
    assert described(Gio.DBusNodeInfo.new_for_xml(xml)) == live
    assert len(live["methods"]) == 5
