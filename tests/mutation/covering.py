"""Maps sources to the test programs that cover them; the first matching prefix counts. A name without a folder is a unit
test of the service; other names are build targets.
"""

import os
import shutil

MZCURL = "tests/unit/mzcurl/mzcurl_"
DURABILITY = "tests/unit/platform/durability_test"
KEY_MATERIAL = "tests/unit/platform/key_material_test"
KEY_STORE = "tests/unit/platform/key_store_test"
PROCESS = "tests/unit/process/process_test"
REFUSED_PINS = "tests/unit/platform/refused_pins_test"
RIGHTS = "tests/unit/platform/token_rights_test"
VAULT = "tests/unit/platform/vault_test"
SECURE = "tests/contract/contract_secure_linux"

# Files that a program loads at run time.
LOADED = {KEY_STORE: ["tests/support/test-pkcs11-proxy.so", "platform/linux/libbilling-platform.so.1.0.0"]}

# Tests of these programs use the session that an earlier test has opened: the trace of a test does not name all functions
# that matter to it. A mutant that survives the traced tests is tried with the whole program.
SHARED = {KEY_STORE, SECURE}

# Sources that run before a program can read its environment, so that it cannot choose between their mutants.
EARLY = {"platform/process/slices.cpp"}

# The server of a test program that runs one.
NGINX = shutil.which("nginx", path=os.environ.get("PATH", "") + os.pathsep + "/usr/sbin")
ARGUMENTS = {MZCURL + "nginx_test": [NGINX]}


def mzcurl(*names):
    return [MZCURL + name + "_test" for name in names if name != "nginx" or NGINX is not None]


COVERED = [
    ("service/core/main.cpp", ["main"]),
    ("service/bus/ReplyBody", ["reply_body", "dbus_manager"]),
    ("service/bus/BusBacklog", ["bus_backlog"]),
    ("service/core/ReplyText", ["reply_text", "dbus_manager"]),
    ("service/core/DBusManager", ["dbus_manager", "main"]),
    ("service/core/ParametersText", ["dbus_manager"]),
    ("service/bus/OnBehalf", ["dbus_manager"]),
    ("service/bus/BusLedger", ["bus_ledger", "bus_flow"]),
    ("service/bus/BusReport", ["bus_report", "bus_flow"]),
    ("service/bus/BusFilter", ["bus_filter"]),
    ("service/bus/", ["bus_flow", "bus_filter"]),
    ("service/engine/", ["engine", "dbus_manager"]),
    ("service/common/connector/BillingHttpRequest", ["http_request"]),
    ("service/common/connector/", ["http_connector", "http_connector_tls"]),
    ("service/common/common/BillingSecureStorage", ["secure_storage", "device_key", "http_connector_tls"]),
    ("service/common/common/BillingOpenSsl", ["device_key", "http_connector_tls", "text"]),
    ("service/common/common/BillingTaskBase", ["task_steps", "sync", "main_loop", "thread", "task", "http_connector"]),
    ("service/common/common/BillingTime", ["time"]),
    ("service/common/common/BillingUtil", ["util", "text"]),
    ("service/common/common/BillingString", ["string"]),
    ("service/common/common/BillingLog", ["log"]),
    ("service/common/common/BillingTypes", ["types", "engine", "dbus_manager"]),
    ("service/common/common/", ["string", "text", "util", "time"]),
    ("platform/curl/queue/admission", mzcurl("admission", "limits", "multi", "burst", "nginx")),
    ("platform/curl/queue/quotas", mzcurl("admission", "limits")),
    ("platform/curl/queue/gate", mzcurl("gate", "admission", "limits", "multi")),
    ("platform/curl/queue/tickets", mzcurl("tickets", "large", "nginx")),
    ("platform/curl/queue/in_hand", mzcurl("tickets", "large", "nginx")),
    ("platform/curl/queue/width", mzcurl("admission", "multi")),
    ("platform/curl/report", mzcurl("report", "refusal")),
    ("platform/curl/global", mzcurl("refusal", "easy")),
    ("platform/curl/transfer/repeat", mzcurl("resend", "multi", "client_certificate", "nginx")),
    ("platform/curl/connection/connections", mzcurl("connections", "resend", "burst", "multi", "nginx")),
    ("platform/curl/transfer/tls", mzcurl("trust", "client_certificate", "multi", "nginx")),
    ("platform/curl/connection/share", mzcurl("trust", "multi", "refusal")),
    ("platform/curl/easy", mzcurl("easy", "refusal", "resend")),
    ("platform/curl/transfer/options", mzcurl("easy", "refusal", "trust")),
    ("platform/curl/transfer/headers", mzcurl("easy", "trust")),
    ("platform/curl/transfer/url", mzcurl("url", "easy", "gate", "admission")),
    ("platform/curl/transfer/transfer", mzcurl("multi", "trust", "limits", "client_certificate")),
    ("platform/curl/transfer/callbacks", mzcurl("limits", "large", "resend", "burst", "nginx")),
    ("platform/curl/transfer/", mzcurl("easy", "trust", "limits", "refusal", "resend", "large", "client_certificate", "nginx")),
    ("platform/curl/events", mzcurl("gate", "resend", "large", "burst", "nginx")),
    ("platform/curl/", mzcurl("multi", "refusal", "limits", "connections", "resend", "burst", "large", "gate", "nginx")),
    ("platform/keystore/crypto_container", [SECURE, KEY_MATERIAL]),
    ("platform/keystore/key_material", [SECURE, KEY_MATERIAL]),
    ("platform/keystore/private_file", [DURABILITY, VAULT, KEY_MATERIAL, KEY_STORE, REFUSED_PINS, SECURE]),
    ("platform/keystore/refused_pins", [REFUSED_PINS, KEY_STORE]),
    ("platform/keystore/seal", [KEY_MATERIAL, SECURE, VAULT, REFUSED_PINS]),
    ("platform/keystore/vault", [VAULT, SECURE]),
    ("platform/keystore/secure_storage", [SECURE, DURABILITY, KEY_STORE, RIGHTS]),
    ("platform/keystore/", [SECURE, KEY_STORE, RIGHTS]),
    ("platform/process/heap", [PROCESS, *mzcurl("burst")]),
    ("platform/process/", [PROCESS]),
]


def target(program):
    """The build target of a program."""
    return program if "/" in program else "tests/unit/test-" + program


def targets(program):
    """All targets that have to be built before a program runs."""
    return [target(program), *LOADED.get(program, [])]


def programs_for(file):
    for prefix, programs in COVERED:
        if file.startswith(prefix):
            return programs
    raise LookupError(f"{file}: no test program is named for it in covering.py")
