"""Finds the calls of the platform log in C++ sources, with the whole format of each.

Macros are followed through all sources: the text that a macro adds around a format, and the position of the format
among its arguments.
"""
import ast
import re

# The function behind every log call, and the index of its format argument.
FUNCTION, PLACE = "__dlog_print", 2
DEFINE = re.compile(r"^[ \t]*#[ \t]*define[ \t]+(\w+)(?:\(([^)]*)\))?((?:[^\n]*\\\n)*[^\n]*)", re.M)
STRING = r'"(?:\\.|[^"\\\n])*"'
TOKEN = re.compile(rf"{STRING}|'(?:\\.|[^'\\\n])*'|[A-Za-z_]\w*|.", re.S)
COMMENT = re.compile(rf"({STRING}|'(?:\\.|[^'\\\n])*')|//[^\n]*|/\*.*?\*/", re.S)
LITERAL = re.compile(STRING)


def text_of(literal):
    return ast.literal_eval(re.sub(r"\\e", r"\\033", literal))


def without_comments(source):
    """The source without comments; line numbers stay."""
    return COMMENT.sub(lambda found: found[1] or "\n" * found[0].count("\n") or " ", source)


def arguments(source, start):
    """The arguments of a call as lists of tokens, starting after its opening bracket."""
    found, depth = [[]], 0
    for token in TOKEN.finditer(source, start):
        piece = token[0]
        depth += (piece in {"(", "[", "{"}) - (piece in {")", "]", "}"})
        if depth < 0:
            return found
        if piece == "," and depth == 0:
            found.append([])
        elif not piece.isspace() and piece != "\\":
            found[-1].append(piece)
    raise AssertionError("a call without an end")


class Macros:
    """The logging macros of some sources, and the text that each adds to a format."""

    def __init__(self, sources):
        defines = [found.groups() for source in sources for found in DEFINE.finditer(without_comments(source))]
        self.strings = {}
        for name, parameters, body in defines:
            tokens = [token for token in TOKEN.findall(body) if not token.isspace() and token != "\\"]
            if parameters is None and tokens and all(LITERAL.fullmatch(token) for token in tokens):
                self.strings[name] = "".join(map(text_of, tokens))
        # Each name that logs: {(index of the format argument, text before it, text after it)}
        self.names = {FUNCTION: {(PLACE, "", "")}}
        before = None
        while before != (before := {name: set(forms) for name, forms in self.names.items()}):
            for name, parameters, body in defines:
                self._learn(name, split(parameters), body)

    def _learn(self, name, parameters, body):
        for call in filter(lambda found: found[2], self.found(body)):
            for text, slot, rest in self.formats(body, call, parameters):
                if slot is not None:
                    self.names.setdefault(name, set()).add((parameters.index(slot), text, rest))

    def found(self, source):
        """Each occurrence of a name that logs."""
        return re.finditer(rf"\b({'|'.join(self.names)})\b(\s*\()?", source)

    def formats(self, source, call, parameters):
        """Yields (text, parameter, text after it) for a call's format; the parameter is None in a complete format.
        Yields (None, None, tokens) for a format that the source does not contain.
        """
        given = arguments(source, call.end())
        for place, before, behind in self.names[call[1]]:
            tokens = given[place] if place < len(given) else []
            texts, slot = [before], None
            for token in tokens:
                if LITERAL.fullmatch(token):
                    texts.append(text_of(token))
                elif token in self.strings:
                    texts.append(self.strings[token])
                elif token in parameters and slot is None:
                    slot = token
                    texts.append("\0")
                else:
                    texts = None
                    break
            if not tokens or texts is None:
                yield None, None, " ".join(tokens)
            else:
                text, _, rest = "".join([*texts, behind]).partition("\0")
                yield text, slot, rest

    def messages(self, source):
        """Yields (line, format, error) for each message that a source logs; one of the last two is None."""
        source = without_comments(source)
        defines = [(found.span(), split(found[2])) for found in DEFINE.finditer(source)]
        for call in self.found(source):
            line = source.count("\n", 0, call.start()) + 1
            before = source[source.rfind("\n", 0, call.start()) + 1 : call.start()]
            if re.search(r"\bint\s+$|#\s*define\s+$", before):  # the function itself, or a macro
                continue
            if not call[2]:
                yield line, None, f"{call[1]} may only be called, so that its formats are found"
                continue
            inside = [parameters for (start, end), parameters in defines if start <= call.start() < end]
            for text, slot, rest in self.formats(source, call, inside[0] if inside else []):
                if text is None:
                    yield line, None, f"the format is not a text in the source: {rest}"
                elif slot is None:
                    yield line, text, None


def split(parameters):
    return [parameter.strip() for parameter in (parameters or "").split(",")]
