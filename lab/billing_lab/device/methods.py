"""The five methods of the service, with the lab's defaults of their arguments."""
from ..folder import LabError

# The arguments in their order, with defaults that fit the lab's own catalogue.
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
    """@return the arguments of a call in their order, defaults included. @throw LabError"""
    known = METHODS.get(method)
    if known is None:
        raise LabError(f"{method!r} is no method; known are {', '.join(METHODS)}")
    for name in values:
        if name not in known:
            raise LabError(f"{method} has no argument {name!r}; it has {', '.join(known) or 'none'}")
    return list({**known, **values}.values())
