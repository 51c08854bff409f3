"""Conditions that choose requests. Faults, own answers and checks of an app have the same ones."""
import dataclasses

PAYMENTS = ("apply", "confirm")
ENDPOINTS = ("country", "products", "invoices", *PAYMENTS)
# The endpoint of each of the five methods.
ENDPOINT_OF = {
    "check_server_availability": "country",
    "get_product_list": "products",
    "get_purchase_history": "invoices",
    "get_applied_time": "apply",
    "confirm_purchase": "confirm",
}
# The conditions besides the endpoint, each with the endpoints whose requests have such a value.
SAID_BY = {
    "app": ("products", *PAYMENTS),
    "user": ENDPOINTS,
    "invoice": PAYMENTS,
    "product": PAYMENTS,
    "custom_id": PAYMENTS,
    "header": ENDPOINTS,
}
WORDS = ("endpoint", *SAID_BY)


class MatchError(ValueError):
    """The reason why no request can match, in one line."""


@dataclasses.dataclass(frozen=True)
class Asked:
    """The values of a request that conditions are compared with. `product` is that of its invoice."""

    endpoint: str
    app: str = ""
    user: str = ""
    invoice: str = ""
    product: str = ""
    custom_id: str = ""
    headers: tuple[tuple[str, str], ...] = ()

    def describe(self) -> dict[str, str]:
        """The values that the journal keeps; empty ones are left out."""
        told = {name: getattr(self, name) for name in ("app", "user", "invoice", "product", "custom_id")}
        return {name: value for name, value in told.items() if value}


@dataclasses.dataclass(frozen=True)
class Match:
    """Conditions; None means any. `header` is a name, or "name: value"."""

    endpoint: str | None = None
    app: str | None = None
    user: str | None = None
    invoice: str | None = None
    product: str | None = None
    custom_id: str | None = None
    header: str | None = None

    def describe(self) -> dict[str, str]:
        return {word: getattr(self, word) for word in WORDS if getattr(self, word) is not None}

    def misses(self, asked: Asked) -> list[str]:
        """The conditions that a request does not meet; empty if it fits."""
        return [word for word in self.describe() if not self._fits(word, asked)]

    def _fits(self, word: str, asked: Asked) -> bool:
        if word != "header":
            return getattr(self, word) == getattr(asked, word)
        name, colon, value = self.header.partition(":")
        return any(
            known.lower() == name.strip().lower() and (not colon or said == value.strip()) for known, said in asked.headers
        )


def read_match(wanted: dict) -> Match:
    """Reads the conditions of a description; its other members are ignored. A method's name stands for its endpoint.

    @throw MatchError for what no request can fit
    """
    values = {word: wanted[word] for word in WORDS if wanted.get(word) is not None}
    for word, value in values.items():
        if not isinstance(value, str):
            raise MatchError(f"{word} is {value!r}; it must be a text")
    if "endpoint" in values:
        named = values["endpoint"]
        values["endpoint"] = ENDPOINT_OF.get(named, named)
        if values["endpoint"] not in ENDPOINTS:
            raise MatchError(f"{named!r} is no endpoint; known are {', '.join(ENDPOINTS)}, and the names of the methods")
    _check_words(values)
    return Match(**values)


def _check_words(values: dict[str, str]) -> None:
    endpoint = values.get("endpoint")
    for word in values:
        if endpoint is not None and endpoint not in SAID_BY.get(word, ENDPOINTS):
            raise MatchError(
                f"a request for {endpoint} names no {word.replace('_', ' ')}, so nothing would match; "
                f"those for {', '.join(SAID_BY[word])} do"
            )
