"""Where things stand in a JSON text: JSON's own reader knows values, this one their lines."""
import json
import re
from collections.abc import Iterator

_TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|[{}\[\],:]|[^\s{}\[\],:"]+')

Path = tuple[str | int, ...]


def _tokens(text: str) -> Iterator[tuple[str, int]]:
    """Each token with its line. Lines are counted on from token to token: from the start for each, a long
    text would take minutes."""
    line, counted = 1, 0
    for match in _TOKEN.finditer(text):
        line += text.count("\n", counted, match.start())
        counted = match.start()
        yield match.group(), line


def lines_of(text: str) -> dict[Path, int]:
    """The line of every value of a JSON text, by its path: ("apps", 0, "id"). A member's line is that
    of its name. The text must be valid."""
    found: dict[Path, int] = {}
    tokens = list(_tokens(text))
    tokens.reverse()

    def value(path: Path, line: int | None = None) -> None:
        token, here = tokens.pop()
        found[path] = line or here
        if token == "{":
            members(path)
        elif token == "[":
            elements(path)

    def members(path: Path) -> None:
        while (token := tokens.pop())[0] != "}":
            if token[0] == ",":
                continue
            tokens.pop()
            value((*path, json.loads(token[0], strict=False)), token[1])

    def elements(path: Path) -> None:
        number = 0
        while tokens[-1][0] != "]":
            if tokens[-1][0] == ",":
                tokens.pop()
                continue
            value((*path, number))
            number += 1
        tokens.pop()

    value(())
    return found
