"""One source that holds many mutants: each function has its mutated bodies beside its own, and BILLING_MUTANT in the
environment selects one. A file is compiled once for all of its mutants.
"""

import re

from operators import blanked

# Number that selects no mutant and prints which functions each test reaches.
TRACE = -1
SLOW_MS = 60
PRELUDE = """\
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
namespace mutation {
namespace {
const int chosen = std::getenv("BILLING_MUTANT") != nullptr ? std::atoi(std::getenv("BILLING_MUTANT")) : 0;
// A copy of standard output: a test may replace the descriptor itself.
const int trace = chosen < 0 ? ::fcntl(1, F_DUPFD, 200) : -1;
inline void reach(int function)
{
    if (trace >= 0)
        ::dprintf(trace, "\\n@%d\\n", function);
}
}  // namespace
}  // namespace mutation
"""
BODY = re.compile(r"^\{\n(?:.|\n)*?^\}", re.MULTILINE)
ERROR = re.compile(r"\bmutant(\d+)/[^\n]*?: (?:fatal )?error: ")


def bodies(text):
    """Offsets of the function bodies, without their braces. A constexpr function has no body here: it may not look at
    the environment.
    """
    code = blanked(text)
    found = []
    for match in BODY.finditer(code):
        signature = re.split(r"\n\s*\n|[;}]", code[: match.start()])[-1]
        if "constexpr" not in signature:
            found.append((match.start() + 1, match.end() - 1))
    return found


def body_of(mutant, found):
    """Index of the body that holds the whole mutant, or None."""
    for index, (start, end) in enumerate(found):
        if start <= mutant.start and mutant.end <= end:
            return index
    return None


def combined(file, text, numbered):
    """The source with the numbered mutants: {number: mutant}; each lies in one body."""
    found = bodies(text)
    inside = {index: [] for index in range(len(found))}
    for number, mutant in numbered.items():
        inside[body_of(mutant, found)].append((number, mutant))
    parts, position = [PRELUDE, f'#line 1 "{file}"\n'], 0
    for index, (start, end) in enumerate(found):
        line = text.count("\n", 0, start) + 1
        parts.append(text[position:start])
        parts.append(f"mutation::reach({index}); switch (mutation::chosen) {{\n")
        for number, mutant in inside[index]:
            body = text[start : mutant.start] + mutant.replacement + text[mutant.end : end]
            # The folder names the mutant in the compiler's messages; the log shows files without their folder.
            parts.append(f'case {number}: {{\n#line {line + 1} "mutant{number}/{file}"{body}}} break;\n')
        parts.append(f'default: {{\n#line {line + 1} "{file}"{text[start:end]}}} break; }}')
        position = end
    parts.append(text[position:])
    return "".join(parts)


def refused(output):
    """Numbers of the mutants that the compiler refuses."""
    return {int(number) for number in ERROR.findall(output)}


def slow(output):
    """Tests that take so long that they run after the others."""
    return {
        name for name, took in re.findall(r"^\[       OK \] (\S+) \((\d+) ms\)", output, re.MULTILINE) if int(took) > SLOW_MS
    }


def reached(output):
    """What a traced program prints: {function: tests that reach it}. None stands for code outside of a test, which may
    matter to each of them.
    """
    test, found = None, {}
    for line in output.splitlines():
        if line.startswith("[ RUN      ] "):
            test = line.split()[3]
        elif re.match(r"\[       OK |\[  FAILED  \] |\[  SKIPPED \] |\[-------", line):
            test = None
        elif re.fullmatch(r"@\d+", line):
            found.setdefault(int(line[1:]), {})[test] = None
    return {function: list(tests) for function, tests in found.items()}
