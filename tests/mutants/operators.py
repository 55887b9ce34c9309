"""Finds the small changes that turn a C++ source into a mutant, token by token.

This relies on our clang-format style: a comparison has blanks on both sides, the angle bracket of a template has none,
and every branch has braces.
"""

import dataclasses
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import sources
from sources import closing

# fmt: off
SIGNS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">",
    "&&": "||", "||": "&&", "+": "-", "-": "+",
}
# fmt: on
COMPARISONS = {"==", "!=", "<", "<=", ">", ">="}

# Each named constant becomes another one that the compiler accepts in its place.
# fmt: off
NAMES = {
    "true": "false", "false": "true",
    "UsbOperationNone": "UsbOperationAdded",
    "UsbOperationAdded": "UsbOperationRemoved",
    "UsbOperationRemoved": "UsbOperationAdded",
    "MS_MGC_VAL": "MS_SYNCHRONOUS", "MS_RDONLY": "MS_SYNCHRONOUS", "MS_NOSUID": "MS_NODEV",
    "MS_NOEXEC": "MS_NODEV", "MS_NOATIME": "MS_NODIRATIME", "MNT_DETACH": "MNT_FORCE",
    "O_RDONLY": "O_RDWR", "O_NONBLOCK": "O_SYNC", "F_OK": "W_OK",
}
# fmt: on
ERROR_NAME = re.compile(r"E[A-Z0-9]{3,}")

NO_EXPRESSION = set(
    "return const constexpr using static extern template class struct enum namespace public private protected "
    "explicit virtual friend inline static_assert if for while do switch case default else try catch throw".split()
)


@dataclasses.dataclass(frozen=True)
class Mutant:
    """Replaces the characters from start to end of a source."""

    start: int
    end: int
    replacement: str

    def apply(self, source):
        return source[: self.start] + self.replacement + source[self.end :]

    def line(self, source):
        return source.count("\n", 0, self.start) + 1

    def before(self, source):
        return source.split("\n")[self.line(source) - 1].strip()

    def after(self, source):
        return self.apply(source).split("\n")[self.line(source) - 1].strip()


def tokens_of(source):
    """The tokens, without those of static assertions, which only the compiler checks."""
    tokens = sources.tokens_of(source)
    while True:
        index = next((index for index, token in enumerate(tokens) if token.text == "static_assert"), None)
        if index is None:
            return tokens
        del tokens[index : closing(tokens, index + 1) + 2]


def other_number(text):
    digits = text.rstrip("uUlL")
    suffix = text[len(digits) :]
    if digits.startswith("0x"):
        return f"0x{int(digits, 16) + 1:X}{suffix}"
    if digits.startswith("0") and len(digits) > 1:
        return f"0{int(digits, 8) + 1:o}{suffix}"
    return f"{int(digits) + 1}{suffix}"


def other_text(text):
    """The literal with its first letter changed, or its first character if it has no letter."""
    inside = text[1:-1]
    if not inside:
        return f"{text[0]}x{text[0]}"
    letter = re.search(r"(?<!\\)[A-Za-z]", inside)
    if letter:
        at, length = letter.start(), 1
    else:
        at, length = 0, 2 if inside[0] == "\\" else 1
    new = "y" if inside[at] == "x" else "x"
    return text[0] + inside[:at] + new + inside[at + length :] + text[0]


def of_values(tokens):
    for index, token in enumerate(tokens):
        if token.kind == "number":
            yield Mutant(token.start, token.end, other_number(token.text))
        elif token.kind in ("string", "char") and tokens[index - 1].text not in ("extern", "operator"):
            yield Mutant(token.start, token.end, other_text(token.text))
        elif token.text in NAMES:
            yield Mutant(token.start, token.end, NAMES[token.text])
        elif token.kind == "name" and ERROR_NAME.fullmatch(token.text):
            # None of our tables contains EXDEV.
            yield Mutant(token.start, token.end, "EXDEV")


def of_signs(tokens, source):
    for index, token in enumerate(tokens):
        if token.kind != "sign":
            continue
        if token.text == "!":
            yield Mutant(token.start, token.end, "")
        elif token.text in SIGNS and source[token.start - 1].isspace() and source[token.end].isspace():
            neighbours = {tokens[index - 1].kind, tokens[index + 1].kind}
            # A minus between strings does not compile.
            if token.text not in ("+", "-") or not neighbours & {"string", "char"}:
                yield Mutant(token.start, token.end, SIGNS[token.text])


def has_its_own_mutant(condition):
    """Whether another mutant already negates the condition: a single comparison, or one that begins with !."""
    texts = [token.text for token in condition]
    if "&&" in texts or "||" in texts:
        return False
    return bool(COMPARISONS & set(texts)) or texts[0] == "!"


def of_conditions(tokens, source):
    for index, token in enumerate(tokens):
        if token.text in ("if", "while") and tokens[index + 1].text == "(":
            end = closing(tokens, index + 1)
            condition = tokens[index + 2 : end]
            declares = condition[0].text in ("const", "auto")
            if not declares and not has_its_own_mutant(condition):
                first, last = condition[0].start, condition[-1].end
                yield Mutant(first, last, f"!({source[first:last]})")
        elif token.text == "?":
            begin = index
            depth = 0
            while depth > 0 or tokens[begin - 1].text not in ("(", ",", "=", ":", "<<", "return"):
                begin -= 1
                depth += (tokens[begin].text == ")") - (tokens[begin].text == "(")
            condition = tokens[begin:index]
            if not has_its_own_mutant(condition):
                first, last = condition[0].start, condition[-1].end
                yield Mutant(first, last, f"!({source[first:last]})")


def is_expression(statement):
    """Whether the tokens are a call, an assignment or an increment, and not a declaration."""
    if statement[0].text in ("++", "--"):
        return True
    if statement[0].kind != "name" or statement[0].text in NO_EXPRESSION:
        return False
    index = 1
    while index + 1 < len(statement) and statement[index].text == "::":
        index += 2
    return index < len(statement) and statement[index].text in ("(", "[", ".", "->", "=", "+=", "-=")


def end_of_statement(tokens, begin):
    """The index of the semicolon that ends the statement; None if a block follows instead."""
    index = begin
    while index < len(tokens) and tokens[index].text not in (";", "{", "}"):
        index = closing(tokens, index) + 1 if tokens[index].text in ("(", "[") else index + 1
    return index if index < len(tokens) and tokens[index].text == ";" else None


def of_statements(tokens):
    """Removes statements: calls, assignments, break and continue, and taking the lock."""
    for index, token in enumerate(tokens):
        if index == 0 or tokens[index - 1].text not in (";", "{", "}"):
            continue
        end = end_of_statement(tokens, index)
        if end is None or end == index or tokens[end - 1].text in ("delete", "default"):
            continue
        statement = tokens[index:end]
        takes_lock = [part.text for part in statement[:3]] == ["const", "HandlerLock", "lock"]
        if takes_lock or token.text in ("break", "continue") or is_expression(statement):
            yield Mutant(token.start, tokens[end].end, ";")


def mutants_of(source):
    """All mutants of a source, in the order of their positions, none twice."""
    tokens = tokens_of(source)
    found = {
        *of_values(tokens),
        *of_signs(tokens, source),
        *of_conditions(tokens, source),
        *of_statements(tokens),
    }
    return sorted(found, key=lambda mutant: (mutant.start, mutant.end, mutant.replacement))
