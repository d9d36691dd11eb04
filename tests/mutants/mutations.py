"""The one-line mutants of a C++ source.

A light tokenizer, not a parser: it relies on the layout of clang-format (comparisons have spaces around them, template
brackets have none). A mutant that does not compile only costs one compilation.
"""

import re
from dataclasses import dataclass

COMMENT_OR_LITERAL = re.compile(
    r"""//[^\n]* | /\*.*?\*/ | R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | "(?:\\.|[^"\\\n])*" |
        (?<!\w)'(?:\\.|[^'\\\n])+'""",
    re.DOTALL | re.VERBOSE,
)
PREPROCESSOR = re.compile(r"^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*", re.MULTILINE)
TEMPLATE_OR_OPERATOR = re.compile(r"\btemplate <[^\n]* | \boperator\s*[^\w\s(]+", re.VERBOSE)
# Log texts are compared with the documentation by another test; static assertions are checked by the compiler.
LEFT_OUT_CALL = re.compile(r"\b(?:KOVA_LOG\w*|static_assert)\(")

COMPARISON = re.compile(r"(?<= )(<=|>=|==|!=|<|>)(?= |$)")
COMPARISONS = {
    "<": ("<=", ">="),
    "<=": ("<", ">"),
    ">": (">=", "<="),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
}
LOGIC = re.compile(r"(?<= )(&&|\|\|)(?= |$)")
NOT = re.compile(r"(?<![\w)\]])!(?=[\w(:])")
CONDITION = re.compile(r"\b(?:if|while) (?=\()")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|[0-9]+)(?=[uUlL]*(?![\w.']))")
TRUTH = re.compile(r"\b(true|false)\b")
CALL = re.compile(r"^\s+(?!return\b|throw\b|delete\b|sizeof\b)[A-Za-z_:][\w:.>\[\]-]*\(.*\);$")


@dataclass(frozen=True)
class Mutant:
    path: str
    line: int
    kind: str
    before: str
    after: str

    def key(self):
        return self.path, self.before.strip(), self.after.strip()


def blank(text):
    return re.sub(r"[^\n]", " ", text)


def closing(text, opening):
    """The index of the parenthesis that closes the one at `opening`, or -1."""
    depth = 0
    for at in range(opening, len(text)):
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if depth == 0:
            return at
    return -1


def masked(text):
    """`text` with spaces for everything that is not mutated and underscores for literals: same length, same lines."""

    def hide(match):
        token = match.group(0)
        if token.startswith("/"):
            return blank(token)
        return token[0] + re.sub(r"[^\n]", "_", token[1:-1]) + token[-1]

    code = COMMENT_OR_LITERAL.sub(hide, text)
    for pattern in (PREPROCESSOR, TEMPLATE_OR_OPERATOR):
        code = pattern.sub(lambda match: blank(match.group(0)), code)
    for call in list(LEFT_OUT_CALL.finditer(code)):
        end = closing(code, call.end() - 1) + 1
        end += code[end : end + 1] == ";"
        code = code[: call.start()] + blank(code[call.start() : end]) + code[end:]
    return code


def incremented(number):
    if number in ("0", "1"):
        return "1" if number == "0" else "0"
    if number[:2] in ("0x", "0X"):
        return hex(int(number, 16) + 1)
    if number.startswith("0"):
        return "0" + format(int(number, 8) + 1, "o")
    return str(int(number) + 1)


def negations(code):
    """(start, end) of the conditions of `code` that can be negated: on one line and without a declaration."""
    for match in CONDITION.finditer(code):
        end = closing(code, match.end())
        start = match.end() + 1
        if end == -1:
            continue
        start += code[start:end].rfind(";") + 1
        start += len(code[start:end]) - len(code[start:end].lstrip())
        condition = code[start:end]
        alone = condition.startswith("!") and not LOGIC.search(condition)  # the same as dropping the "!"
        if condition and " = " not in condition and not alone:
            yield start, end


def is_call_statement(code, previous):
    if not CALL.match(code) or not previous.endswith((";", "{", "}", ":")):
        return False
    opening = code.index("(")
    depth = 0
    for character in code[opening:]:
        depth += {"(": 1, ")": -1}.get(character, 0)
        if depth < 0:
            return False
    return depth == 0


def changes(code, original, previous):
    """(kind, line after the change) for one line."""
    for kind, pattern, replacements in (
        ("comparison", COMPARISON, COMPARISONS.get),
        ("logic", LOGIC, lambda token: ("||" if token == "&&" else "&&",)),
        ("negation", NOT, lambda token: ("",)),
        ("constant", NUMBER, lambda token: (incremented(token),)),
        ("truth", TRUTH, lambda token: ("false" if token == "true" else "true",)),
    ):
        for match in pattern.finditer(code):
            for replacement in replacements(match.group(0)):
                yield kind, original[: match.start()] + replacement + original[match.end() :]
    for start, end in negations(code):
        yield "negation", f"{original[:start]}!({original[start:end]}){original[end:]}"
    if is_call_statement(code, previous):
        yield "deleted call", original[: len(original) - len(original.lstrip())] + ";"


def mutants_of(path, text):
    previous = ""
    for number, (code, original) in enumerate(zip(masked(text).split("\n"), text.split("\n")), 1):
        code = code.rstrip()
        for kind, after in changes(code, original, previous):
            yield Mutant(path, number, kind, original, after)
        previous = code or previous


def mutated(text, mutant):
    lines = text.split("\n")
    assert lines[mutant.line - 1] == mutant.before
    lines[mutant.line - 1] = mutant.after
    return "\n".join(lines)


def read_equivalents(text):
    """The mutants of the file "equivalent", as {Mutant.key(): reason}; ValueError for an incomplete entry."""
    found = {}
    for entry in re.split(r"\n\s*\n", re.sub(r"^#.*\n", "", text, flags=re.MULTILINE)):
        lines = [line.strip() for line in entry.strip().split("\n")]
        if lines == [""]:
            continue
        words = dict(line.split(":", 1) for line in lines[1:] if ":" in line)
        if len(lines) != 4 or list(words) != ["before", "after", "because"]:
            raise ValueError(f"an entry is a path, before, after and because, not {lines}")
        before, after, because = (words[word].strip() for word in ("before", "after", "because"))
        if not because:
            raise ValueError(f"no reason is given for {lines}")
        found[(lines[0], before, after)] = because
    return found
