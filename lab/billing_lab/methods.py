"""The five methods, with what a caller may leave out."""
from .folder import LabError

# The arguments in their order. The store of the lab takes app-1 of its own catalogue.
METHODS: dict[str, dict[str, str]] = {
    "check_server_availability": {},
    "get_product_list": {"appid": "app-1", "serverType": "1", "CheckValue": ""},
    "get_purchase_history": {
        "appid": "app-1",
        "customId": "",
        "ItemType": "",
        "PageNumber": "1",
        "CheckValue": "",
        "serverType": "1",
    },
    "get_applied_time": {"appid": "app-1", "customId": "", "invoiceid": "", "serverType": "1"},
    "confirm_purchase": {"appid": "app-1", "customId": "", "invoiceid": "", "serverType": "1"},
}


def arguments_of(method: str, values: dict[str, str]) -> list[str]:
    """The arguments of a call in their order."""
    known = METHODS.get(method)
    if known is None:
        raise LabError(f"{method!r} is no method; known are {', '.join(METHODS)}")
    for name in values:
        if name not in known:
            raise LabError(f"{method} has no argument {name!r}; it has {', '.join(known) or 'none'}")
    return list({**known, **values}.values())
