"""Finds the line of each value in a JSON text, which Python's json module does not tell."""
import json
import re
from collections.abc import Iterator

_TOKEN = re.compile(r'"(?:[^"\\]|\\.)*"|[{}\[\],:]|[^\s{}\[\],:"]+')

Path = tuple[str | int, ...]


def _tokens(text: str) -> Iterator[tuple[str, int]]:
    """Yields each token with its line. Lines are counted from token to token: counting from the start of the text for each
    token takes minutes for a long text."""
    line, counted = 1, 0
    for match in _TOKEN.finditer(text):
        line += text.count("\n", counted, match.start())
        counted = match.start()
        yield match.group(), line


def lines_of(text: str) -> dict[Path, int]:
    """@return the line of each value of a JSON text by its path, such as ("apps", 0, "id"). A member's line is that of its
    name. The text must be valid JSON."""
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
