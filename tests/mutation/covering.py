"""Which unit test programs look at which source of service/: the first prefix that fits counts."""

COVERED = [
    ("service/core/main.cpp", ["main"]),
    ("service/core/ReplyBody", ["reply_body", "dbus_manager"]),
    ("service/core/BusBacklog", ["bus_backlog"]),
    ("service/core/ReplyText", ["reply_text", "dbus_manager"]),
    ("service/core/DBusManager", ["dbus_manager", "main"]),
    ("service/core/ParametersText", ["dbus_manager"]),
    ("service/core/OnBehalf", ["dbus_manager"]),
    ("service/core/BusFilter", ["bus_filter"]),
    ("service/core/Bus", ["bus_flow", "bus_filter"]),
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
]


def programs_for(file):
    for prefix, programs in COVERED:
        if file.startswith(prefix):
            return programs
    raise LookupError(f"{file}: no unit test program is named for it in covering.py")
