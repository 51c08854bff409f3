"""Mutation operators for C++ sources: each one yields its possible edits of a file."""

import dataclasses
import re

LITERAL = re.compile(r'R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|//[^\n]*|/\*(?:.|\n)*?\*/')
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.MULTILINE)
# First words of lines that are no plain statement, or that declare something.
KEYWORDS = (
    "if",
    "else",
    "for",
    "while",
    "do",
    "switch",
    "case",
    "default",
    "return",
    "break",
    "continue",
    "try",
    "catch",
    "throw",
    "using",
    "namespace",
    "template",
    "class",
    "struct",
    "enum",
    "static",
    "const",
    "constexpr",
    "inline",
    "extern",
    "friend",
    "virtual",
    "explicit",
    "public",
    "private",
    "protected",
    "static_assert",
    "auto",
)
DECLARATION = re.compile(
    r"(?:(?:const|unsigned|long) )*[\w:]+(?:<[^;=]*>)?(?:\s*[*&]+\s*|\s+)(?:const\s+)?\w+\s*(?:[=;({\[]|$)"
)
LOCK = re.compile(r"(?:const )?(?:CBillingAutoLock|std::lock_guard<std::mutex>|std::unique_lock<std::mutex>) \w+[({]")


@dataclasses.dataclass(frozen=True)
class Mutant:
    """One edit of one file: replaces the text between two offsets."""

    file: str
    operator: str
    line: int
    start: int
    end: int
    replacement: str
    before: str
    after: str

    def applied(self, text):
        return text[: self.start] + self.replacement + text[self.end :]

    def key(self):
        return (self.file, self.operator, self.before, self.after)


def blanked(text):
    """The source with blanks in place of literals, comments and directives; offsets stay the same."""

    def blanks(match):
        return re.sub(r"[^\n]", " ", match.group())

    return DIRECTIVE.sub(blanks, LITERAL.sub(blanks, text))


def lines_of(text, start, end):
    """The whole lines of a range, with runs of white space reduced to one blank."""
    first = text.rfind("\n", 0, start) + 1
    last = text.find("\n", end)
    return " ".join(text[first : last if last >= 0 else len(text)].split())


def replacing(file, text, code, operator, pattern, replace):
    for match in re.finditer(pattern, code):
        replacement = replace(match)
        if replacement is None:
            continue
        start, end = match.span()
        after = text[:start] + replacement + text[end:]
        yield Mutant(
            file,
            operator,
            text.count("\n", 0, start) + 1,
            start,
            end,
            replacement,
            lines_of(text, start, end),
            lines_of(after, start, start + len(replacement)),
        )


COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}


def comparisons(file, text, code):
    return replacing(
        file, text, code, "comparison", r"(?<= )(?:==|!=|<=|>=|<|>)(?= )", lambda match: COMPARISONS[match.group()]
    )


def logic(file, text, code):
    yield from replacing(
        file, text, code, "logic", r"(?<= )(?:&&|\|\|)(?=\s)", lambda match: "||" if match.group() == "&&" else "&&"
    )
    yield from replacing(file, text, code, "logic", r"(?<=[( ])!(?=[\w(])", lambda match: "")


def one_more(number):
    base = 8 if re.fullmatch("0[0-7]+", number) else 0
    return oct(int(number, 8) + 1).replace("o", "") if base == 8 else str(int(number, 0) + 1)


def constants(file, text, code):
    yield from replacing(
        file, text, code, "constant", r"\b(?:true|false)\b", lambda match: "false" if match.group() == "true" else "true"
    )
    yield from replacing(
        file, text, code, "constant", r"(?<![\w.])(?:0x[0-9A-Fa-f]+|\d+)(?![\w.])", lambda match: one_more(match.group())
    )


def arithmetic(file, text, code):
    swap = {"+": "-", "-": "+", "*": "+", "/": "*", "%": "*", "+=": "-=", "-=": "+="}
    yield from replacing(
        file, text, code, "arithmetic", r"(?<=[\w)\]] )(?:\+=|-=|[-+*/%])(?= [\w(])", lambda match: swap[match.group()]
    )
    yield from replacing(
        file, text, code, "arithmetic", r"\+\+(?=[\w(])|--(?=[\w(])", lambda match: "--" if match.group() == "++" else "++"
    )


def statements(text, code):
    """Plain statements inside functions: (start, end, indent), in whole lines."""
    found = []
    position = 0
    lines = code.splitlines(keepends=True)
    index = 0
    while index < len(lines):
        line = lines[index]
        stripped = line.strip()
        indent = len(line) - len(line.lstrip())
        start = position
        position += len(line)
        index += 1
        word = re.match(r"\w*", stripped).group()
        if indent < 4 or not stripped or stripped[0] in "{}#:,?)&|<+" or word in KEYWORDS:
            continue
        if stripped.endswith(":"):
            continue
        whole = line
        while index < len(lines) and not (
            whole.count("(") == whole.count(")") and whole.count("{") == whole.count("}") and whole.rstrip().endswith(";")
        ):
            if whole.count("{") != whole.count("}") or len(whole) > 600:
                break
            whole += lines[index]
            position += len(lines[index])
            index += 1
        if re.search(r"= (?:default|delete|0);", whole):
            continue
        if whole.rstrip().endswith(";") and whole.count("(") == whole.count(")") and whole.count("{") == whole.count("}"):
            found.append((start, start + len(whole), indent))
    return found


def is_lock(statement):
    return LOCK.match(statement.strip()) is not None


def removals(file, text, code):
    for start, end, _ in statements(text, code):
        statement = code[start:end].strip()
        if DECLARATION.match(statement):
            continue
        yield Mutant(
            file,
            "removal",
            text.count("\n", 0, start) + 1,
            start,
            end,
            "\n" * text.count("\n", start, end),
            lines_of(text, start, end - 1),
            "",
        )


def locks(file, text, code):
    for match in re.finditer(r"^[ ]+(.*)\n", code, re.MULTILINE):
        if is_lock(match.group(1)):
            yield Mutant(
                file,
                "lock",
                text.count("\n", 0, match.start()) + 1,
                match.start(),
                match.end(),
                "\n",
                " ".join(text[match.start() : match.end()].split()),
                "",
            )


ASSIGNMENT = re.compile(r"((\w+)(?:(?:\.|->)\w+)*) = [^()+-]*;")


def is_apart(one, two):
    """True if the first statement sets a value of a local variable, calls nothing, and the second one is of the same kind or
    writes a log line without that value: their order makes no difference.
    """
    match = ASSIGNMENT.fullmatch(one)
    if match is None or match[2].startswith(("m_", "g_")):
        return False
    other = ASSIGNMENT.fullmatch(two)
    if other is None and not re.fullmatch(r"BILLING_(?:DEBUG|INFO|WARN|ERROR)\w*\([^()]*\);", two):
        return False
    of_other = other is not None and (re.search(rf"\b{re.escape(other[1])}\b", one) or other[2].startswith(("m_", "g_")))
    return not of_other and not re.search(rf"\b{re.escape(match[1])}\b|\b{match[2]}\b(?!\.|->)", two)


def swaps(file, text, code):
    plain = statements(text, code)
    for first, second in zip(plain, plain[1:]):
        if first[1] != second[0] or first[2] != second[2]:
            continue
        one, two = text[first[0] : first[1]], text[second[0] : second[1]]
        if one == two or DECLARATION.match(one.strip()):
            continue
        blank = [" ".join(code[each[0] : each[1]].split()) for each in (first, second)]
        if is_apart(*blank) or is_apart(*reversed(blank)):
            continue
        # Moving a declaration without a call up by a line has no effect.
        if DECLARATION.match(two.strip()) and "(" not in code[second[0] : second[1]]:
            continue
        yield Mutant(
            file,
            "swap",
            text.count("\n", 0, first[0]) + 1,
            first[0],
            second[1],
            two + one,
            " ".join((one + two).split()),
            " ".join((two + one).split()),
        )


OPERATORS = {
    "comparison": comparisons,
    "logic": logic,
    "constant": constants,
    "arithmetic": arithmetic,
    "removal": removals,
    "lock": locks,
    "swap": swaps,
}


def mutants(file, text):
    """All mutants of one file, grouped by operator."""
    code = blanked(text)
    return [mutant for operator in OPERATORS.values() for mutant in operator(file, text, code)]
