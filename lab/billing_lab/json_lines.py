"""Where things stand in a JSON text: JSON's own reader knows values, this one their lines."""
import json
import re

_TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|[{}\[\],:]|[^\s{}\[\],:"]+')

Path = tuple[str | int, ...]


def lines_of(text: str) -> dict[Path, int]:
    """The line of every value of a JSON text, by its path: ("apps", 0, "id"). A member's line is that
    of its name. The text must be valid."""
    found: dict[Path, int] = {}
    tokens = [(match.group(), text.count("\n", 0, match.start()) + 1)
              for match in _TOKEN.finditer(text)]
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
