"""The demonstration behind scripts/demo: one of everything, and all five methods called."""
import contextlib
import json
import pathlib
import signal
import sys
import tempfile
import textwrap

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from harness import certificates, credentials, daemon, device, methods, server  # noqa: E402

from billing_lab import bus, view  # noqa: E402

HOST = "store.localhost"


def answer(request):
    """A body that says what was asked, so that it can be told apart from the others."""
    return server.Reply(json.dumps({"store": "demo", "asked": request.path}).encode())


def show(title, text):
    print(f"  {title}")
    print(textwrap.indent(text.strip(), "    "))


def call_all(caller, store):
    """@return how many of the five methods came back with the server's body"""
    good = 0
    for method, arguments in methods.EVERY_CALL.items():
        store.take_requests()
        result, text = caller.call(method, *arguments)
        asked = store.take_requests()
        print(f"\n{method}{arguments}")
        for request in asked:
            show("the server was asked", request.raw.decode().replace("\r\n", "\n"))
        show("the caller got", f"({result}, {text!r})")
        expected = [(0, answer(request).body.decode()) for request in asked]
        good += expected == [(result, text)]
    return good


def run(folder, keep):
    authority = certificates.Authority()
    keys = credentials.Credentials.make(pathlib.Path(folder) / "lab")
    store = server.StoreServer(authority.server_context(HOST, clients=keys.authority))
    store.answer = answer
    tv = device.Device(folder, keys, f"{HOST}:{store.port}")
    tv.ca_file.write_bytes(authority.pem)
    private_bus = bus.Bus(folder)
    service = daemon.Daemon(folder, private_bus.address, tv, level="info")
    try:
        caller = bus.Caller(private_bus.address)
        service.wait_for_name(caller)
        good = call_all(caller, store)
        print(f"\n{good} of {len(methods.EVERY_CALL)} methods came back with the server's body")
        if keep:
            stay(private_bus, tv, store, service)
        caller.close()
        print(f"SIGTERM: the daemon ended with status {service.stop()}")
        return 0 if good == len(methods.EVERY_CALL) else 1
    finally:
        service.kill()
        private_bus.stop()
        store.stop()


def stay(private_bus, tv, store, service):
    print(textwrap.dedent(f"""
        It stays until Ctrl-C. In another terminal:
          export DBUS_SYSTEM_BUS_ADDRESS={private_bus.address}
          gdbus call --system -d {bus.SERVICE} -o {bus.OBJECT} \\
              -m {bus.SERVICE}.get_product_list app-1 1 check-1
        settings, read again when they change:  {tv.file}
        server:                                 https://{HOST}:{store.port}
        log of the daemon:                      {service.log_file}"""), flush=True)
    with contextlib.suppress(KeyboardInterrupt):
        signal.pause()


def main():
    # Stopped in any way, it stops what it has started.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    problem = view.why_no_view()
    if problem is not None:
        print(f"demo: {problem}", file=sys.stderr)
        return 1
    with tempfile.TemporaryDirectory(prefix="billing-demo-") as folder:
        try:
            return run(pathlib.Path(folder), "--keep" in sys.argv)
        except KeyboardInterrupt:
            print("demo: stopped")
            return 1


if __name__ == "__main__":
    sys.exit(main())
